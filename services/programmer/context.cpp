#include "programmer/context.h"

#include <array>

namespace programmer {

void report_fault(Context &context, const char *kind, Bytes record) {
  if (++context.faults[kind] != 1) return;
  constexpr std::size_t kShown = 24;
  std::array<char, 2 * kShown + 1> hex{};
  constexpr char kDigits[] = "0123456789abcdef";
  for (std::size_t i = 0; i < record.size() && i < kShown; ++i) {
    hex[2 * i] = kDigits[record[i] >> 4];
    hex[2 * i + 1] = kDigits[record[i] & 15];
  }
  PROGRAMMER_LOG(context, QX_ZLOG_ERROR, "%s: %zu bytes that begin with %s are skipped; more of this kind are only counted", kind,
                 record.size(), record.empty() ? "nothing" : hex.data());
}

}  // namespace programmer
