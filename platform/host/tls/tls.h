// TLS for the host's services: loads certificates from files and describes failures. Any thread.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>

namespace host::tls {

struct Free {
  void operator()(SSL_CTX *context) const { SSL_CTX_free(context); }
  void operator()(SSL *ssl) const { SSL_free(ssl); }
};
using Context = std::unique_ptr<SSL_CTX, Free>;
using Session = std::unique_ptr<SSL, Free>;

// Loads certificate and key (none to present when empty) and the authorities that peers are checked against (no check when
// empty). Null and `error` on failure.
Context load(const std::string &cert, const std::string &key, const std::string &ca, std::string &error);

// Describes a failure by its OpenSSL code, including any fault of the peer's certificate. `session` may be null.
std::string failure_text(unsigned long code, const SSL *session);

}  // namespace host::tls
