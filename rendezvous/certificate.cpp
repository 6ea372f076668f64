#include "rendezvous/certificate.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

namespace
{
constexpr std::size_t longestName = 64;          // bytes (RFC 5280, ub-common-name); the names of hosts may be longer
constexpr long lifetime = 20L * 365 * 24 * 3600; // seconds: nobody checks it, and nobody is to be called to renew it

template <auto release> struct Release {
    template <typename Thing> void operator()(Thing *thing) const { release(thing); }
};

void require(bool isDone)
{
    if (!isDone)
        throw std::runtime_error("cannot make a certificate");
}
} // namespace

std::string selfSignedCertificate(const std::string &host)
{
    const std::unique_ptr<EVP_PKEY, Release<EVP_PKEY_free>> key(EVP_EC_gen("P-256"));
    const std::unique_ptr<X509, Release<X509_free>> certificate(X509_new());
    const std::unique_ptr<BIO, Release<BIO_free_all>> text(BIO_new(BIO_s_mem()));
    require(key && certificate && text);
    const auto length = static_cast<int>(std::min(host.size(), longestName));
    X509_NAME *name = X509_get_subject_name(certificate.get());
    const auto *bytes = reinterpret_cast<const unsigned char *>(host.data());
    require(X509_set_version(certificate.get(), X509_VERSION_3) == 1 &&
            ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1) == 1 &&
            X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0) != nullptr &&
            X509_gmtime_adj(X509_getm_notAfter(certificate.get()), lifetime) != nullptr &&
            X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8, bytes, length, -1, 0) == 1 &&
            X509_set_issuer_name(certificate.get(), name) == 1 && X509_set_pubkey(certificate.get(), key.get()) == 1 &&
            X509_sign(certificate.get(), key.get(), EVP_sha256()) > 0 &&
            PEM_write_bio_PrivateKey(text.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1 &&
            PEM_write_bio_X509(text.get(), certificate.get()) == 1);
    char *data = nullptr;
    const long size = BIO_get_mem_data(text.get(), &data);
    return {data, static_cast<std::size_t>(size)};
}
