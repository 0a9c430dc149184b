/* The contract in plain C: all headers, and of southbound.h what it says to C++ too. */
#include "libcgstctrl.h"
#include "libddm.h"
#include "libss_fp_com.h"
#include "libss_pkt.h"
#include "lsm_if.h"
#include "of_ss.h"
#include "qx_mom.h"
#include "qx_result.h"
#include "qx_runtime.h"
#include "qx_zlog.h"
#include "rdnd_lib.h"
#include "southbound.h"
#include "southbound_view.h"
#include "ssat.h"
#include "ut_ss_fp_appmng.h"

int main(void) {
  /* Where alignment is odd. */
  unsigned char bytes[southbound_kStatRequestLen + 1];
  southbound_put_header(bytes + 1, southbound_kStatRequest, 4, southbound_kStatRequestLen, 9);
  southbound_put_u64(bytes + 1, southbound_kStatIndex, southbound_kAllFlows);
  const int as_laid_down[] = {
      bytes[1] == 13 && bytes[2] == 0 && bytes[5] == 16,
      southbound_get_u16(bytes + 1, southbound_kTable) == 9,
      southbound_get_u64(bytes + 1, southbound_kStatIndex) == UINT64_MAX,
      southbound_oxm_slot(0x80000a02) == 8 && southbound_action_step(9) == 16,
  };
  for (size_t i = 0; i < sizeof as_laid_down / sizeof *as_laid_down; ++i)
    if (!as_laid_down[i]) return (int)i + 1;
  return 0;
}
