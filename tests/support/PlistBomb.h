// A small binary property list that expands into a large tree: an array holding `refs` references to one
// 60-byte string. Each reference costs one byte on the wire and a whole node (and a copy of the string)
// once decoded.
#pragma once

#include <cstdint>
#include <vector>

namespace vorlen::test {

inline std::vector<uint8_t> referenceBomb(uint32_t refs) {
  std::vector<uint8_t> out = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
  uint64_t arrayOffset = out.size();
  out.insert(out.end(),
             {0xAF, 0x12, uint8_t(refs >> 24), uint8_t(refs >> 16), uint8_t(refs >> 8), uint8_t(refs)});
  out.insert(out.end(), refs, 0x01);
  uint64_t stringOffset = out.size();
  out.insert(out.end(), {0x5F, 0x10, 60});
  out.insert(out.end(), 60, 'x');
  uint64_t table = out.size();
  for (uint64_t o : {arrayOffset, stringOffset})
    for (int s = 24; s >= 0; s -= 8) out.push_back(uint8_t(o >> s));
  out.insert(out.end(), 6, 0);
  out.push_back(4);  // offset width
  out.push_back(1);  // reference width
  for (uint64_t v : {uint64_t{2}, uint64_t{0}, table})
    for (int s = 56; s >= 0; s -= 8) out.push_back(uint8_t(v >> s));
  return out;
}

}  // namespace vorlen::test
