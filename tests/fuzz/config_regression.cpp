// Configuration files.
#include "fuzz/regression.h"

namespace {

TEST(ConfigFuzz, FixedInputs) {
  run_around(
      text("run_dir = '/run/kelim'\n[openflow]\nlisten = ['ptcp:127.0.0.1:6653']\ncapacity = 0x10\n[programmer]\n"
           "embedded = true\n[[ports]]\nifx = 1\nname = \"p1\"\n"));
}

}  // namespace
