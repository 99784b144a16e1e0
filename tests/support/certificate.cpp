#include "certificate.h"

#include <memory>
#include <stdexcept>

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

namespace support {

namespace {

constexpr long seconds_of_a_day = 24L * 60 * 60;

template <class Type>
Type *needed(Type *object)
{
    if (object == nullptr)
        throw std::runtime_error("cannot make a certificate");
    return object;
}

void add_extension(X509 *certificate, int kind, const std::string &value)
{
    X509V3_CTX context;
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    X509_EXTENSION *extension = needed(X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()));
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
}

template <class Write>
void write_file(const std::string &path, Write write)
{
    std::unique_ptr<std::FILE, int (*)(std::FILE *)> file(std::fopen(path.c_str(), "w"),
                                                          std::fclose);
    if (write(needed(file.get())) != 1)
        throw std::runtime_error("cannot write " + path);
}

} // namespace

Certificate make_certificate(const std::string &directory, const CertificateOptions &options)
{
    const std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY *)> key(needed(EVP_EC_gen("P-256")),
                                                              EVP_PKEY_free);
    const std::unique_ptr<X509, void (*)(X509 *)> certificate(needed(X509_new()), X509_free);
    X509 *x509 = certificate.get();
    X509_set_version(x509, X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(x509), 1);
    X509_gmtime_adj(X509_getm_notBefore(x509), -options.days_old * seconds_of_a_day);
    X509_gmtime_adj(X509_getm_notAfter(x509), options.days_left * seconds_of_a_day);
    X509_set_pubkey(x509, key.get());
    X509_NAME *name = X509_get_subject_name(x509);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char *>(options.name.c_str()), -1,
                               -1, 0);
    X509_set_issuer_name(x509, name);
    add_extension(x509, NID_basic_constraints, "critical,CA:TRUE");
    if (!options.address.empty())
        add_extension(x509, NID_subject_alt_name, "IP:" + options.address);
    if (X509_sign(x509, key.get(), EVP_sha256()) == 0)
        throw std::runtime_error("cannot sign a certificate");

    const std::string stem = directory + '/' + options.name;
    write_file(stem + ".pem", [&](std::FILE *file) { return PEM_write_X509(file, x509); });
    write_file(stem + ".key", [&](std::FILE *file) {
        return PEM_write_PrivateKey(file, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    });
    return {.certificate_file = stem + ".pem", .key_file = stem + ".key"};
}

} // namespace support
