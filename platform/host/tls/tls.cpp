#include "host/tls/tls.h"

#include <fmt/format.h>
#include <openssl/err.h>

namespace host::tls {
namespace {

std::string cannot_load(const char *what, const std::string &file) {
  char reason[256];
  ERR_error_string_n(ERR_get_error(), reason, sizeof reason);
  return fmt::format("cannot load the TLS {} \"{}\": {}", what, file, reason);
}

}  // namespace

Context load(const std::string &cert, const std::string &key, const std::string &ca, std::string &error) {
  ERR_clear_error();
  Context context(SSL_CTX_new(TLS_method()));
  if (!context) {
    error = cannot_load("library", "");
    return nullptr;
  }
  SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
  if (!cert.empty() && SSL_CTX_use_certificate_chain_file(context.get(), cert.c_str()) != 1) {
    error = cannot_load("certificate", cert);
  } else if (!cert.empty() && SSL_CTX_use_PrivateKey_file(context.get(), key.c_str(), SSL_FILETYPE_PEM) != 1) {
    error = cannot_load("key", key);
  } else if (!ca.empty() && SSL_CTX_load_verify_locations(context.get(), ca.c_str(), nullptr) != 1) {
    error = cannot_load("authorities", ca);
  } else {
    if (!ca.empty()) SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    return context;
  }
  return nullptr;
}

std::string failure_text(unsigned long code, const SSL *session) {
  const char *reason = ERR_reason_error_string(code);
  std::string text = fmt::format("TLS: {}", reason ? reason : "unknown error");
  if (session && SSL_get_verify_result(session) != X509_V_OK)
    text += fmt::format(": {}", X509_verify_cert_error_string(SSL_get_verify_result(session)));
  return text;
}

}  // namespace host::tls
