// Controllers over TLS, both ways: who has the right certificate is served, and who has not learns nothing but is named in the
// log.
#include <fcntl.h>
#include <openssl/err.h>

#include "host/log/log.h"
#include "host/of_ss/agent/settings.h"
#include "host/of_ss/agent_world.h"
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
  certificates::Owner<SSL_CTX> context_;
  certificates::Owner<SSL> ssl_;
};

class Tls : public AgentTest {
 protected:
  void configure() override {
    AgentTest::configure();
    ours_.write(dir / "cert.pem", dir / "key.pem");
    authority_.write(dir / "ca.pem", dir / "other.pem");
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
  bool is_listened_to() override { return false; }
  std::string log() {
    const std::lock_guard lock(mutex_);
    return log_;
  }
  // A peer that is not served: its connection ends, and the log says why.
  void expect_refused(Controller &peer, const char *why) {
    peer.send(hello(), 1s);
    EXPECT_TRUE(until([&] { return peer.ended(); }));
    EXPECT_TRUE(until([&] { return log().find(why) != std::string::npos; })) << log();
    EXPECT_TRUE(peer.received().empty());
    EXPECT_TRUE(daemon.of_type(southbound::kOpen).empty());
    warp(1s);
  }

  static inline const Identity authority_{"authority"}, ours_{"switch", &authority_}, theirs_{"controller", &authority_};
  static inline const Identity expired_{"late", &authority_, -60};
  static inline const Identity other_authority_{"another authority"}, stranger_{"stranger", &other_authority_};
  std::mutex mutex_;
  std::string log_;
};

TEST_F(Tls, AControllerOfTheSameAuthorityIsServedAndOthersAreNamedInTheLog) {
  const struct {
    const Identity *shown;
    const char *why;
  } refused[] = {{nullptr, "came by pssl:127.0.0.1:0 and is no controller: TLS: peer did not return a certificate"},
                 {&stranger_, "TLS: certificate verify failed: unable to get local issuer certificate"},
                 {&expired_, "TLS: certificate verify failed: certificate has expired"}};
  for (const auto &[shown, why] : refused) {
    TlsController peer;
    peer.connect(port);
    peer.speak_tls(shown);
    expect_refused(peer, why);
  }
  TlsController served;
  Controller plain(port);
  expect_refused(plain, "TLS: wrong version number");

  served.connect(port);
  served.speak_tls(&theirs_);
  Message flows;
  for (std::uint32_t i = 1; i <= 2000; ++i) append(flows, flow_mod(ipv4_flow(i, i)));
  ASSERT_TRUE(served.send(hello() + flows));
  ASSERT_TRUE(served.settle());
  EXPECT_EQ(daemon.flows(true).size(), 2000u);
  // More than a record of TLS holds, both ways.
  ASSERT_TRUE(served.send(dump_request(9) + message(2, 0xecc0, Message(40'000))));
  EXPECT_EQ(served.await(3).size(), 40'008u);
  EXPECT_EQ(served.of_type(19).size(), 4u);
}

class Unchecked : public Tls {
 protected:
  void configure() override {
    Tls::configure();
    set("openflow.tls_ca", "");
  }
  void reload_with(const char *verify) {
    set("openflow.tls_verify", verify);
    EXPECT_EQ(ask({{"call", "cmd"}, {"module", "of_ss"}, {"command", "reload"}})["status"], 0);
  }
  void expect_unusable() {
    const auto endpoint = view("controllers")["endpoints"][0];
    EXPECT_EQ(endpoint["state"], "unusable");
    EXPECT_EQ(endpoint["error"], host::of_ss::kNoAuthority);
    EXPECT_EQ(host::of_ss::listening_port(), 0);
  }
};

TEST_F(Unchecked, WithoutAuthoritiesNobodyIsServedUnlessThatIsWrittenDown) {
  expect_unusable();
  EXPECT_NE(log().find("pssl:127.0.0.1:0: TLS needs openflow.tls_ca"), std::string::npos) << log();
  reload_with("false");
  EXPECT_NE(log().find("pssl:127.0.0.1:0: openflow.tls_verify is false"), std::string::npos) << log();
  TlsController anybody;
  anybody.connect(host::of_ss::listening_port());
  anybody.speak_tls(&stranger_);
  ASSERT_TRUE(anybody.send(hello() + flow_mod(ipv4_flow(1, 1))));
  ASSERT_TRUE(anybody.settle());
  reload_with("true");
  expect_unusable();
  EXPECT_TRUE(until([&] { return anybody.ended(); }));
}

class Dialing : public Tls {
 protected:
  void configure() override {
    Tls::configure();
    set("openflow.listen", "");
    set("openflow.connect", "ssl:" + secret_.address() + ",tcp:" + open_.address());
  }
  Listener secret_, open_;
};

TEST_F(Dialing, ChecksTheCertificateAndComesBackAfterALoss) {
  TlsController wrong, right;
  secret_.accept(wrong);
  wrong.speak_tls(&stranger_, true);
  expect_refused(wrong, "TLS: certificate verify failed: unable to get local issuer certificate; trying again");
  secret_.accept(right);
  right.speak_tls(&theirs_, true);
  ASSERT_TRUE(right.send(hello()));
  EXPECT_EQ(get(right.ask(message(5, 1)), 1, 1), 6u);
  for (int round = 0; round < 3; ++round) {
    Controller plain;
    open_.accept(plain);
    plain.send(hello());
    EXPECT_EQ(get(plain.ask(message(5, 1)), 1, 1), 6u) << "round " << round;
  }
}

// The start goes on without the endpoint; the log names file and reason.
TEST_F(Tls, FilesThatCannotBeUsedAreNamed) {
  const auto refused = [this](const char *cert, const char *key, const char *ca, const char *what, const std::string &file) {
    std::string error;
    EXPECT_EQ(host::tls::load(dir / cert, dir / key, dir / ca, error), nullptr);
    EXPECT_NE(error.find(file.empty() ? what : what + (" \"" + (dir / file)) + "\": "), std::string::npos) << error;
  };
  refused("missing.pem", "key.pem", "ca.pem", "certificate", "missing.pem");
  refused("cert.pem", "missing.pem", "ca.pem", "key", "missing.pem");
  refused("cert.pem", "ca.pem", "ca.pem", "key", "ca.pem");
  refused("cert.pem", "other.pem", "ca.pem", "key values mismatch", "");
  refused("cert.pem", "key.pem", "key.pem", "authorities", "key.pem");
}

}  // namespace
