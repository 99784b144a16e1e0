// Certificates for tests of TLS: each signs itself, so whoever trusts the file trusts the server.
#pragma once

#include <string>

namespace sandbox_test {

struct CertificateWish {
    std::string subject_names = "DNS:localhost,IP:127.0.0.1,IP:::1"; // as OpenSSL writes them
    long valid_from = -3600;                                         // seconds from now
    long valid_to = 3600;
};

struct CertificateFiles {
    std::string certificate; // PEM
    std::string key;
};

// Writes NAME.pem and NAME.key into the directory.
CertificateFiles make_certificate(const std::string &directory, const std::string &name = "server",
                                  const CertificateWish &wish = {});

} // namespace sandbox_test
