#include "certificate.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <memory>
#include <stdexcept>

namespace sandbox_test {

namespace {

template <class Thing>
using Owned = std::unique_ptr<Thing, void (*)(Thing *)>;

void require(bool condition)
{
    if (!condition)
        throw std::runtime_error("OpenSSL makes no certificate");
}

void extend(X509 *certificate, int kind, const std::string &value)
{
    const Owned<X509_EXTENSION> extension(
        X509V3_EXT_conf_nid(nullptr, nullptr, kind, value.c_str()), X509_EXTENSION_free);
    require(extension && X509_add_ext(certificate, extension.get(), -1) == 1);
}

template <class Write>
void write_file(const std::string &path, Write write)
{
    std::FILE *file = std::fopen(path.c_str(), "w");
    require(file != nullptr);
    const bool written = write(file) == 1;
    require(std::fclose(file) == 0 && written);
}

} // namespace

CertificateFiles make_certificate(const std::string &directory, const std::string &name,
                                  const CertificateWish &wish)
{
    const Owned<EVP_PKEY> key(EVP_EC_gen("P-256"), EVP_PKEY_free);
    const Owned<X509> certificate(X509_new(), X509_free);
    require(key && certificate);
    X509_set_version(certificate.get(), X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), wish.valid_from);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), wish.valid_to);
    X509_set_pubkey(certificate.get(), key.get());
    X509_NAME *subject = X509_get_subject_name(certificate.get());
    const auto *text = reinterpret_cast<const unsigned char *>(name.c_str());
    X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8, text, -1, -1, 0);
    X509_set_issuer_name(certificate.get(), subject);
    extend(certificate.get(), NID_basic_constraints, "critical,CA:TRUE");
    extend(certificate.get(), NID_subject_alt_name, wish.subject_names);
    require(X509_sign(certificate.get(), key.get(), EVP_sha256()) > 0);

    CertificateFiles files{directory + "/" + name + ".pem", directory + "/" + name + ".key"};
    write_file(files.certificate,
               [&](std::FILE *file) { return PEM_write_X509(file, certificate.get()); });
    write_file(files.key, [&](std::FILE *file) {
        return PEM_write_PrivateKey(file, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    });
    return files;
}

} // namespace sandbox_test
