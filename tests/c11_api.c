/* Every public header compiled as C11 (-pedantic-errors), the command record
 * as C lays it out, and a few calls through libzel.so: a property list round
 * trip and a switch in the state database. */
#include <stdio.h>
#include <stdlib.h>

#include "zel/configstore.h"
#include "zel/data.h"
#include "zel/file.h"
#include "zel/kernel.h"
#include "zel/state.h"
#include "zel/status.h"

static void *Alloc(uint64_t n) { return malloc((size_t)n); }

int main(void) {
  if (sizeof(ZELPYXCommand) != 424) return 1;
  PropertyList *list = NULL;
  uint32_t ports = 256, back = 0, len = 0;
  void *buf = NULL;
  if (ZELData_Alloc(&list, Alloc, free) != STATUS_OK) return 2;
  if (ZELData_Append(list, "maxPorts", &ports, sizeof ports, ZELDATA_PROPTYPE_LIBRARY) != STATUS_OK)
    return 3;
  if (ZELData_Serialize(list, &buf, &len, 5) != STATUS_OK || len != 164) return 4;
  if (ZELData_DeserializeGetPropVal(buf, len, "maxPorts", &back, sizeof back) != STATUS_OK ||
      back != 256)
    return 5;
  ZELData_FreeAssocData(list, buf);
  ZELData_Free(list);
  if (ZELState_SwitchAdd("c11-switch", "etherswitch", 0, 7) != STATUS_OK) return 6;
  SwitchState *sw = ZELState_SwitchFind("c11-switch");
  if (sw == NULL || ZEL_Version(sw) != 7) return 7;
  if (ZELState_ConfigReset() != STATUS_OK || ZELState_SwitchFind("c11-switch") != NULL) return 8;
  puts("c11 api ok");
  return 0;
}
