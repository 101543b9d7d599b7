/* A program built against an installed libzel: a property list serialized
 * and read back, through the public headers and libzel.so only. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <zel/data.h>

static void *Alloc(uint64_t n) { return malloc((size_t)n); }

int main(void) {
  PropertyList *list = NULL, *back = NULL;
  const char alias[] = "sw-blue";
  void *buf = NULL;
  uint32_t len = 0;
  if (ZELData_Alloc(&list, Alloc, free) != STATUS_OK ||
      ZELData_Append(list, "com.zorlan.common.alias", alias, sizeof alias, 16) != STATUS_OK ||
      ZELData_Serialize(list, &buf, &len, 5) != STATUS_OK ||
      ZELData_Deserialize(&back, buf, len, Alloc, free) != STATUS_OK) {
    return 1;
  }
  PropertyEntry *entry = NULL;
  void *value = NULL;
  int ok = ZELData_Lookup(back, "com.zorlan.common.alias", &entry) == STATUS_OK &&
           ZELData_Data(entry, &value) == sizeof alias && memcmp(value, alias, sizeof alias) == 0;
  ZELData_Free(back);
  ZELData_FreeAssocData(list, buf);
  ZELData_Free(list);
  printf("round trip of %u bytes: %s\n", len, ok ? "ok" : "FAILED");
  return ok ? 0 : 1;
}
