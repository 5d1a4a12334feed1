// The assistant's tests install this binary as its tarnprint, which it then plays.
#include <gtest/gtest.h>

#include "support/conversion.h"

int main(int argc, char** argv) {
  if (int code = 0; tarn::test::play_helper_program(argc, argv, &code)) return code;
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
