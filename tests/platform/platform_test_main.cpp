// The platform tests re-run this binary as a child whose inheritance they inspect.
#include <gtest/gtest.h>

namespace tarn::test {
int run_probe(int argc, char** argv);
}

int main(int argc, char** argv) {
  if (argc >= 3 && std::string(argv[1]) == "--probe") return tarn::test::run_probe(argc, argv);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
