/* Every public header compiled as C11 and a few calls through libzel.so. */
#include <stdio.h>
#include <stdlib.h>

#include "zel/data.h"
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
  puts("c11 api ok");
  return 0;
}
