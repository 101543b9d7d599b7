// zelctl store writes the desired layer that the client reads, and reads
// back what it wrote, in either layer.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "configstore_client_support.h"

namespace {

using namespace cfgtest;

// Runs "zelctl store" on the test's database; returns its exit status and output.
int Tool(const TempStore &tmp, const std::string &args, std::string *out = nullptr) {
  const std::string cmd = ZELCTL_PATH " store --db '" + tmp.path() + "' " + args + " 2>/dev/null";
  FILE *p = popen(cmd.c_str(), "r");
  std::string text;
  for (char buf[256]; fgets(buf, sizeof buf, p) != nullptr;) text += buf;
  int st = pclose(p);
  if (out != nullptr) *out = text;
  return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

TEST(ConfigStoreTool, WritesDesiredLayerReadByClient) {
  TempStore tmp;
  const std::string sw1 = R"('{"uuid":"sw1","@types":{"max_ports":"int32"},"max_ports":64}')";
  ASSERT_EQ(Tool(tmp, "--desired put switches network_zel orn sw1 " + sw1), 0);
  ASSERT_EQ(Tool(tmp, R"(put switches network_zel orn sw1 '{"uuid":"sw1"}')"), 0);
  EXPECT_EQ(Tool(tmp, R"(put switches network_zel orn sw2 '{"bad":1.5}')"), 2);

  cs::Object **objs = nullptr;
  int n = 0;
  ASSERT_EQ(cs::GetDesiredUserConfigInstances("switches", "network_zel", "orn", &objs, &n),
            cs::kOk);
  ASSERT_EQ(n, 1);
  int32_t maxPorts = 0;
  EXPECT_EQ(cs::GetValueInt(objs[0], "max_ports", &maxPorts), cs::kOk);
  EXPECT_EQ(maxPorts, 64);
  cs::DestroyConfigStoreObject(objs[0]);
  free(objs);

  std::string out;
  EXPECT_EQ(Tool(tmp, "--desired get switches network_zel orn sw1", &out), 0);
  EXPECT_EQ(out, "{\"@types\":{\"max_ports\":\"int32\"},\"max_ports\":64,\"uuid\":\"sw1\"}\n");
  EXPECT_EQ(Tool(tmp, "list switches network_zel orn", &out), 0);
  EXPECT_EQ(out, "sw1\t{\"uuid\":\"sw1\"}\n");
  EXPECT_EQ(Tool(tmp, "--desired delete switches network_zel orn sw1"), 0);
  EXPECT_EQ(Tool(tmp, "--desired get switches network_zel orn sw1"), 1);
  EXPECT_EQ(Tool(tmp, "--desired delete switches network_zel orn sw1"), 1);
}

}  // namespace
