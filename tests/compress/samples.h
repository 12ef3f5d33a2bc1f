// Inputs for the compression tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

struct Sample {
  std::string name;
  Bytes bytes;
};

/// Text, code, noise, runs and nothing, in sizes around the filter's look-ahead and far above it.
std::vector<Sample> samples();

/// Lines of text.
Bytes text(size_t size);

/// Calls of a few functions from many places: what the x86 filter is for, so it must win here.
Bytes call_code(size_t calls);

/// Bytes drawn from the few values that the filter cares about, so that branches overlap
/// everywhere.
Bytes branch_noise(size_t size, uint32_t seed);
