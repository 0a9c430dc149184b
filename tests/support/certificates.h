// Certificates for tests of TLS, created on demand.
#pragma once

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <cstdio>
#include <memory>
#include <string>

namespace certificates {

struct FreeOpenSsl {
  void operator()(EVP_PKEY *key) const { EVP_PKEY_free(key); }
  void operator()(SSL_CTX *context) const { SSL_CTX_free(context); }
  void operator()(SSL *ssl) const { SSL_free(ssl); }
  void operator()(X509 *certificate) const { X509_free(certificate); }
  void operator()(FILE *file) const { fclose(file); }
};
template <typename T>
using Owner = std::unique_ptr<T, FreeOpenSsl>;

// A key and its certificate, signed by `authority` or, as an authority, by itself (the certificate is of version 1, in which a
// self-signed one counts as an authority). Valid from an hour ago until the given number of seconds from now.
class Identity {
 public:
  explicit Identity(const char *name, const Identity *authority = nullptr, long lifetime = 3600)
      : key_(EVP_EC_gen("P-256")), certificate_(X509_new()) {
    X509 *c = certificate_.get();
    ASN1_INTEGER_set(X509_get_serialNumber(c), 1);
    X509_gmtime_adj(X509_getm_notBefore(c), -3600);
    X509_gmtime_adj(X509_getm_notAfter(c), lifetime);
    X509_set_pubkey(c, key_.get());
    X509_NAME_add_entry_by_txt(X509_get_subject_name(c), "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char *>(name), -1,
                               -1, 0);
    const Identity &signer = authority ? *authority : *this;
    X509_set_issuer_name(c, X509_get_subject_name(signer.certificate_.get()));
    X509_sign(c, signer.key_.get(), EVP_sha256());
  }
  EVP_PKEY *key() const { return key_.get(); }
  X509 *certificate() const { return certificate_.get(); }
  void write(const std::string &certificate, const std::string &key) const {
    PEM_write_X509(file(certificate).get(), certificate_.get());
    PEM_write_PrivateKey(file(key).get(), key_.get(), nullptr, nullptr, 0, nullptr, nullptr);
  }

 private:
  static Owner<FILE> file(const std::string &path) { return Owner<FILE>(fopen(path.c_str(), "w")); }
  Owner<EVP_PKEY> key_;
  Owner<X509> certificate_;
};

}  // namespace certificates
