#include "host/bench_models.h"

#include <gtest/gtest.h>

#include <set>
#include <stdexcept>

namespace quorvel::host {
namespace {

TEST(BenchModels, DirectoryNameCarriesArchHiddenAndContext) {
  const BenchShape shape{"x", {"--arch", "4", "--hidden", "2048", "--layers", "2", "--max-pos", "4352"}};
  EXPECT_EQ(model_directory_name(shape), "4-2048-pos4352");
}

TEST(BenchModels, AnotherContextIsAnotherDirectory) {
  const BenchShape a{"x", {"--arch", "1", "--hidden", "64", "--max-pos", "256"}};
  const BenchShape b{"x", {"--arch", "1", "--hidden", "64", "--max-pos", "4352"}};
  EXPECT_NE(model_directory_name(a), model_directory_name(b));
}

TEST(BenchModels, MissingOptionIsAnError) {
  EXPECT_THROW(model_directory_name({"x", {"--arch", "1", "--hidden", "64"}}), std::invalid_argument);
  EXPECT_THROW(model_directory_name({"x", {"--arch", "1", "--hidden", "64", "--max-pos"}}), std::invalid_argument);
}

TEST(BenchModels, ShapesHaveRoomForTheDeepestRequestAndDistinctDirectories) {
  std::set<std::string> names;
  for (const BenchShape& shape : bench_shapes()) {
    EXPECT_EQ(model_directory_name(shape).substr(model_directory_name(shape).find("-pos")), "-pos4352");
    names.insert(model_directory_name(shape));
  }
  EXPECT_EQ(names.size(), bench_shapes().size());
  EXPECT_GT(kBenchMaxPositions, 4096u + 8 + 33);
}

}  // namespace
}  // namespace quorvel::host
