#include "host/processor_name.h"

#include <gtest/gtest.h>

#include <sstream>

namespace quorvel::host {
namespace {

std::string name_of(const std::string& cpuinfo) {
  std::istringstream in(cpuinfo);
  return processor_name_from_cpuinfo(in);
}

TEST(ProcessorName, TakesTheFirstModelNameTrimmed) {
  EXPECT_EQ(name_of("processor\t: 0\nvendor_id\t: AuthenticAMD\nmodel\t\t: 17\nmodel name\t: AMD EPYC  \n"
                    "model name\t: Other\n"),
            "AMD EPYC");
}

TEST(ProcessorName, KeyMustBeExactlyModelName) {
  EXPECT_EQ(name_of("model\t\t: 17\nmodel names : x\n"), "unknown");
}

TEST(ProcessorName, UnknownWithoutAName) {
  EXPECT_EQ(name_of("processor\t: 0\nBogoMIPS\t: 50.00\nCPU implementer\t: 0x41\n"), "unknown");
  EXPECT_EQ(name_of("model name\t:   \n"), "unknown");
  EXPECT_EQ(name_of(""), "unknown");
}

TEST(ProcessorName, KeepsColonsInTheName) { EXPECT_EQ(name_of("model name : A: B\n"), "A: B"); }

}  // namespace
}  // namespace quorvel::host
