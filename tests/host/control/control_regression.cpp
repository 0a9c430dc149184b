// Requests of operators.
#include "support/regression.h"

namespace {

TEST(ControlFuzz, FixedInputs) {
  run_around(text(R"({"call":"cmd","module":"m","command":"two","args":{"hex":"0x1F","switch":1}})"));
  run_around(text(R"({"call":"view","name":"mom","args":{"op":"scan","type":"s_policy_kelim.flow","db":8,"limit":1}})"));
  for (const char *args :
       {R"({"op":"ls","type":"s_policy_kelim.flow","limit":-1,"db":4294967304})",
        R"({"op":"ls","type":"s_policy_kelim.flow","limit":1e300})", R"({"op":"get","key":["s_policy_kelim.flow:1:0",{}]})",
        R"({"op":"get","key":"s_policy_kelim.flow:%0"})", R"({"op":7})", R"([{}])", "null", "1e999", R"("\ud800")"})
    for (const char *call : {R"("view","name":"mom")", R"("view","name":"congestion")", R"("watch","name":"ticks")",
                             R"("watch","name":"mom")", R"("cmd","module":"m","command":"two")"})
      run(text(std::string(R"({"call":)") + call + R"(,"args":)" + args + "}"));
  const std::string deep = std::string(30'000, '[') + std::string(30'000, ']');
  run(text(deep));
  run(text(R"({"call":"view","name":"mom","args":)" + deep + "}"));
  run(text(R"({"call":"cmd","module":"m","command":"two","args":{"hex":)" + deep + "}}"));
  run(text(std::string(65'536, 'x')));
}

}  // namespace
