// The models of the fuzz drivers (fuzz/) on random inputs, in every run of the tests.
#pragma once

#include "support/support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

/// Runs the driver that the program is linked with, which aborts where the library and its model
/// differ. Its first two bytes choose what it does; half of the inputs are texts of few letters.
inline void expect_model_holds(int inputs, int longest) {
  Random random;
  const std::string letters = "aab \t=;'\"09Zz/,\xC3";
  const auto draw = [&](bool text) {
    return text ? letters[static_cast<size_t>(random.below(static_cast<int>(letters.size())))]
                : static_cast<char>(random.below(256));
  };
  const auto run = [&] {
    for (int i = 0; i < inputs; ++i) {
      std::string input(static_cast<size_t>(2 + random.below(longest)), ' ');
      for (char &c : input) c = draw(i % 2 == 0 && &c - input.data() > 1);
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(input.data()), input.size());
    }
    return 0;
  };
  EXPECT_EQ(in_child(run), 0);
}
