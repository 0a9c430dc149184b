// Controllers over TLS, both ways: who has the right certificate is served, and who has not learns nothing but is named in the
// log.
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include "component/of_world.h"
#include "host/log/log.h"
#include "host/of_ss/endpoints.h"
#include "support/certificates.h"

namespace {

using namespace of_world;
using certificates::Identity;

// A controller that speaks TLS as client or server; without an identity it shows no certificate.
class TlsController : public Controller {
 public:
  void speak_tls(const Identity *identity, bool as_server = false) {
    context_.reset(SSL_CTX_new(TLS_method()));
    if (identity) {
      SSL_CTX_use_certificate(context_.get(), identity->certificate());
      SSL_CTX_use_PrivateKey(context_.get(), identity->key());
    }
    ssl_.reset(SSL_new(context_.get()));
    fcntl(fd_, F_SETFL, O_NONBLOCK);
    SSL_set_fd(ssl_.get(), fd_);
    (as_server ? SSL_set_accept_state : SSL_set_connect_state)(ssl_.get());
  }

 private:
  ssize_t put_some(std::span<const std::byte> bytes) override {
    ERR_clear_error();
    return outcome(SSL_write(ssl_.get(), bytes.data(), static_cast<int>(bytes.size())));
  }
  ssize_t get_some(std::span<std::byte> into) override {
    ERR_clear_error();
    return outcome(SSL_read(ssl_.get(), into.data(), static_cast<int>(into.size())));
  }
  // What send and recv would give.
  ssize_t outcome(int n) {
    if (n > 0) return n;
    const int why = SSL_get_error(ssl_.get(), n);
    errno = why == SSL_ERROR_WANT_READ || why == SSL_ERROR_WANT_WRITE ? EAGAIN : ECONNRESET;
    return why == SSL_ERROR_ZERO_RETURN ? 0 : -1;
  }
  struct Free {
    void operator()(SSL_CTX *context) const { SSL_CTX_free(context); }
    void operator()(SSL *ssl) const { SSL_free(ssl); }
  };
  std::unique_ptr<SSL_CTX, Free> context_;
  std::unique_ptr<SSL, Free> ssl_;
};

class Tls : public AgentTest {
 protected:
  void configure() override {
    AgentTest::configure();
    ours_.write_certificate(dir / "cert.pem");
    ours_.write_key(dir / "key.pem");
    authority_.write_certificate(dir / "ca.pem");
    set("openflow.listen", "pssl:127.0.0.1:0");
    set("openflow.tls_cert", dir / "cert.pem");
    set("openflow.tls_key", dir / "key.pem");
    set("openflow.tls_ca", dir / "ca.pem");
    host::log::set_tap([this](const host::log::LineView &line) {
      const std::lock_guard lock(mutex_);
      if (line.level >= host::log::Level::warning) log_ += std::string(line.text) + "\n";
    });
  }
  void TearDown() override {
    AgentTest::TearDown();
    host::log::set_tap(nullptr);
  }
  bool logged(const std::string &text) {
    const std::lock_guard lock(mutex_);
    return log_.find(text) != std::string::npos;
  }
  std::string log() {
    const std::lock_guard lock(mutex_);
    return log_;
  }
  // A peer that is not served: its connection ends, and the log says why.
  void expect_refused(Controller &c, const char *why) {
    c.send(hello(), 1s);
    EXPECT_TRUE(until([&] { return c.ended(); }));
    EXPECT_TRUE(until([&] { return logged(why); })) << log();
    EXPECT_TRUE(c.received().empty());
    EXPECT_TRUE(daemon.of_type(southbound::kOpen).empty());
  }

  static inline const Identity authority_{"authority"}, ours_{"switch", &authority_}, theirs_{"controller", &authority_};
  static inline const Identity other_authority_{"another authority"}, stranger_{"stranger", &other_authority_};
  std::mutex mutex_;
  std::string log_;
};

TEST_F(Tls, AControllerOfTheSameAuthorityIsServed) {
  TlsController c;
  c.connect(port);
  c.speak_tls(&theirs_);
  ASSERT_TRUE(c.send(hello()));
  Message flows;
  for (std::uint32_t i = 1; i <= 2000; ++i) append(flows, flow_mod(ipv4_flow(i, i)));
  ASSERT_TRUE(c.send(flows));
  ASSERT_TRUE(c.settle());
  EXPECT_EQ(daemon.flows(true).size(), 2000u);
  // More than a record of TLS holds, both ways.
  const Message dump = message(
      18, 9, hex("0001 0000 00000000 ff000000 ffffffff ffffffff 00000000 0000000000000000 0000000000000000 0001000400000000"));
  ASSERT_TRUE(c.send(dump + message(2, 0xecc0, Message(40'000))));
  EXPECT_EQ(c.await(3).size(), 40'008u);
  EXPECT_EQ(c.of_type(19).size(), 4u);
  EXPECT_TRUE(log().empty()) << log();
}

TEST_F(Tls, OthersAreNotServedAndNamedInTheLog) {
  TlsController nameless;
  nameless.connect(port);
  nameless.speak_tls(nullptr);
  expect_refused(nameless, "came by pssl:127.0.0.1:0 and is no controller: TLS: peer did not return a certificate");
  warp(1s);
  TlsController stranger;
  stranger.connect(port);
  stranger.speak_tls(&stranger_);
  expect_refused(stranger, "TLS: certificate verify failed: unable to get local issuer certificate");
  warp(1s);
  Controller plain(port);
  expect_refused(plain, "TLS: wrong version number");
}

class TlsDialing : public Tls {
 protected:
  bool starts_at_once() override { return false; }
  void SetUp() override {
    Tls::SetUp();
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    ASSERT_EQ(::bind(listener_, reinterpret_cast<sockaddr *>(&address), length), 0);
    ASSERT_EQ(::listen(listener_, 5), 0);
    ::getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &length);
    set("openflow.connect", "ssl:127.0.0.1:" + std::to_string(ntohs(address.sin_port)));
    set("openflow.listen", "");
    start();
  }
  void TearDown() override {
    ::close(listener_);
    Tls::TearDown();
  }
  // The next connection of the agent, served with this identity.
  void serve(TlsController &c, const Identity &identity) {
    int fd = -1;
    ASSERT_TRUE(until([&] { return (fd = ::accept(listener_, nullptr, nullptr)) >= 0; }));
    c.adopt(fd);
    c.speak_tls(&identity, true);
  }
  int listener_ = -1;
};

TEST_F(TlsDialing, TheControllersCertificateIsChecked) {
  TlsController wrong, right;
  serve(wrong, stranger_);
  expect_refused(wrong, "TLS: certificate verify failed: unable to get local issuer certificate; trying again");
  serve(right, theirs_);
  ASSERT_TRUE(right.send(hello()));
  EXPECT_EQ(get(right.ask(message(5, 1)), 1, 1), 6u);
}

struct FileCase {
  const char *label, *cert, *key, *ca, *says;
};

// The start goes on without the endpoint; the log names file and reason.
TEST_F(TlsDialing, FilesThatCannotBeUsedAreNamed) {
  const FileCase cases[] = {
      {"no certificate", "missing.pem", "key.pem", "", "certificate \"missing.pem\": "},
      {"no key", "cert.pem", "missing.pem", "", "key \"missing.pem\": "},
      {"a key that is none", "cert.pem", "ca.pem", "", "key \"ca.pem\": "},
      {"another's key", "cert.pem", "other.pem", "", "key values mismatch"},
      {"authorities that are none", "cert.pem", "key.pem", "key.pem", "authorities \"key.pem\": "},
  };
  theirs_.write_key(dir / "other.pem");
  for (const FileCase &f : cases) {
    std::string error;
    const auto path = [this](const char *name) { return *name ? dir / name : std::string(); };
    EXPECT_EQ(host::of_ss::load_tls(path(f.cert), path(f.key), path(f.ca), error), nullptr) << f.label;
    std::string short_error = error;
    if (const auto at = short_error.find(dir.path() + "/"); at != std::string::npos) short_error.erase(at, dir.path().size() + 1);
    EXPECT_NE(short_error.find(f.says), std::string::npos) << f.label << ": " << error;
  }
}

}  // namespace
