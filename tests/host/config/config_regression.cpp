// Configuration files.
#include "support/regression.h"

namespace {

TEST(ConfigFuzz, FixedInputs) {
  run_around(
      text("run_dir = '/run/kelim'\n[openflow]\nlisten = ['ptcp:127.0.0.1:6653']\ncapacity = 0x10\n[programmer]\n"
           "embedded = true\n[[ports]]\nifx = 1\nname = \"p1\"\n"));
  run(text("[programmer]\nembedded = tr\nue"));  // the parser quotes the line end
  for (const char *around : {"é = 1", "a\u00e9 = 1", "a = 1 é", "a = \"é\" # é", "a = '''é''''' é",
                             "\xef\xbb\xbf"
                             "a = 1",
                             "a = \"\\\"é\" é", "a=1='é", "a=1.\"é", "a.\"é\"='é'", "a = \"\"\"\\\né\"\"\""})
    run_around(text(around));
}

}  // namespace
