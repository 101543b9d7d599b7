/* Every public header compiled as C11 (-pedantic-errors) and a few calls
 * through libzel.so: a property list round trip, a switch in the state
 * database, the command record's size, and the lock pair. */
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
  PropertyList *list = NULL;
  if (ZELData_Alloc(&list, Alloc, free) != STATUS_OK) return 1;
  uint32_t ports = 256;
  if (ZELData_Append(list, "maxPorts", &ports, sizeof ports, ZELDATA_PROPTYPE_LIBRARY) != STATUS_OK) return 2;
  void *buf = NULL;
  uint32_t len = 0;
  if (ZELData_Serialize(list, &buf, &len, 5) != STATUS_OK || len != 164) return 3;
  uint32_t back = 0;
  if (ZELData_DeserializeGetPropVal(buf, len, "maxPorts", &back, sizeof back) != STATUS_OK || back != 256) return 4;
  ZELData_FreeAssocData(list, buf);
  ZELData_Free(list);

  if (sizeof(ZELPYXCommand) != 424) return 5;
  ZelRecLock *pyx = ZelSwitchPYXLock();
  ZelRecLock *state = ZelSwitchHandleLock();
  if (ZELState_SwitchAdd("c11-switch", "etherswitch", 0, 7) != STATUS_OK) return 6;
  SwitchState *sw = ZELState_SwitchFind("c11-switch");
  if (sw == NULL || ZEL_Version(sw) != 7) return 7;
  if (ZELState_ConfigReset() != STATUS_OK || ZELState_SwitchFind("c11-switch") != NULL) return 8;
  ZelSwitchHandleUnlock(state);
  ZelSwitchPYXUnlock(pyx);
  {
    char *keys[] = {"a", "b"};
    if (!StringExistInArray("b", keys, 2) || StringExistInArray("c", keys, 2)) return 9;
  }
  {
    void *blob = NULL;
    int32_t length = 0;
    uint32_t offset = 0;
    if (ZELFile_ReadClassical("/nonexistent/zel.state", &blob, &length, &offset) != STATUS_NOT_FOUND) return 10;
  }
  puts("c11 api ok");
  return 0;
}
