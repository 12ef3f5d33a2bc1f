// What the model tests share: a generator whose seed is printed when a test fails, and small
// elements with few distinct keys, so that equal ones are common.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <random>
#include <string>

class Random {
 public:
  // C2MS_SEED=n in the environment repeats a run.
  Random() : seed_(choose()), trace_(__FILE__, __LINE__, "seed " + std::to_string(seed_)) {}

  // 0 ... n - 1
  int below(int n) { return std::uniform_int_distribution<int>(0, n - 1)(engine_); }

 private:
  static unsigned choose() {
    const char *const given = std::getenv("C2MS_SEED");
    return given != nullptr ? static_cast<unsigned>(std::atoi(given)) : std::random_device{}();
  }

  const unsigned seed_;
  const testing::ScopedTrace trace_;
  std::mt19937 engine_{seed_};
};

struct Element {
  int key;
};

// 64 elements of 16 keys.
inline std::array<Element, 64> make_elements() {
  std::array<Element, 64> elements{};
  for (size_t i = 0; i < elements.size(); ++i) elements[i].key = static_cast<int>(i % 16);
  return elements;
}

inline int by_key(const void *a, const void *b) {
  return static_cast<const Element *>(a)->key - static_cast<const Element *>(b)->key;
}

inline int by_key_in_slots(const void *a, const void *b) {
  return by_key(*static_cast<const void *const *>(a), *static_cast<const void *const *>(b));
}
