// Inputs for the compression tests.
#include "samples.h"

#include <fstream>
#include <iterator>
#include <random>

Bytes text(size_t size) {
  std::string lines;
  for (int line = 0; lines.size() < size; ++line) {
    lines += "line " + std::to_string(line * 7919) + " of a text without branches\n";
  }
  lines.resize(size);
  return Bytes(lines.begin(), lines.end());
}

Bytes call_code(size_t calls) {
  std::mt19937 random(7);
  Bytes code;
  for (size_t i = 0; i < calls; ++i) {
    for (unsigned n = random() % 12; n > 0; --n) code.push_back(static_cast<uint8_t>(random()));
    const uint32_t target = 0x1000 * (1 + random() % 8);
    const uint32_t distance = target - static_cast<uint32_t>(code.size() + 5);
    code.push_back(0xE8);
    for (int shift = 0; shift < 32; shift += 8) {
      code.push_back(static_cast<uint8_t>(distance >> shift));
    }
  }
  return code;
}

Bytes branch_noise(size_t size, uint32_t seed) {
  static constexpr uint8_t alphabet[] = {0xE8, 0xE9, 0x00, 0xFF, 0xFE, 0x01, 0x00, 0xFF};
  std::mt19937 random(seed);
  Bytes bytes(size);
  for (uint8_t &byte : bytes) {
    const uint32_t draw = static_cast<uint32_t>(random());
    byte = draw % 9 == 8 ? static_cast<uint8_t>(draw >> 8) : alphabet[draw % 9];
  }
  return bytes;
}

/// This program's own code, on x86 with real branches.
static Bytes machine_code() {
  std::ifstream file("/proc/self/exe", std::ios::binary);
  Bytes bytes((std::istreambuf_iterator<char>(file)), {});
  if (bytes.size() > 250'000) bytes = Bytes(bytes.begin() + 100'000, bytes.begin() + 250'000);
  return bytes;
}

std::vector<Sample> samples() {
  std::mt19937 random(1);
  Bytes noise(50'000);
  for (uint8_t &byte : noise) byte = static_cast<uint8_t>(random());

  std::vector<Sample> all = {
      {"text", text(70'000)},           {"noise", noise},
      {"zeros", Bytes(300'000)},        {"calls", call_code(5'000)},
      {"machine code", machine_code()}, {"branch noise", branch_noise(100'000, 2)},
      {"opcodes", Bytes(999, 0xE8)},
  };
  for (size_t size = 0; size <= 14; ++size) {
    all.push_back({"noise of " + std::to_string(size), branch_noise(size, 3)});
    Bytes calls = call_code(3);
    calls.resize(size);
    all.push_back({"calls of " + std::to_string(size), calls});
  }
  return all;
}
