// Searches, replacements, texts, bits, numbers and codecs of a frame beside the same on a string.
#include "random_inputs.h"

TEST(frame_text, behaves_as_a_string) {
  expect_model_holds(100'000, 400);
}
