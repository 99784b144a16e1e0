// Certificates for tests of TLS, made on the spot.
//
//     Certificate good = make_certificate(directory.path(), {.address = "127.0.0.1"});
//     Certificate old = make_certificate(directory.path(), {.days_left = -1, .name = "old"});
//
// Each signs itself, so its own file is the file of trusted issuers that makes it valid.
#pragma once

#include <string>

namespace support {

struct CertificateOptions {
    std::string name = "localhost";    // common name, and the stem of the files
    std::string address = "127.0.0.1"; // subjectAltName; empty for none
    int days_old = 2;
    int days_left = 2;
};

struct Certificate {
    std::string certificate_file;
    std::string key_file;
};

Certificate make_certificate(const std::string &directory, const CertificateOptions &options = {});

} // namespace support
