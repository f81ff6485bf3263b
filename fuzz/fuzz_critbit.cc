// Fuzz target for the crit-bit tree: the input is a program of tree operations run against the node layer
// and a std::map at once; any disagreement (result codes, values, releases, walk order, early stop, shape
// invariants) aborts.
//
// Program: repeated [op byte][key length byte][key bytes]. op % 6 picks insert (bit 3: replace, bit 4:
// the value the key holds already), delete, contains, prefix walk (stop after (op >> 3) % 5 keys, 0 never;
// bit 7: stop with a result other than 0), a structure check, or clear. Keys end at their first NUL, as
// the tree's own keys do.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "../tests/cache/CritbitOracle.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vorlen::test::CritbitOracle oracle;
  size_t i = 0;
  while (i + 2 <= size) {
    uint8_t op = data[i];
    size_t len = data[i + 1] % 64;
    i += 2;
    len = std::min(len, size - i);
    std::string key(reinterpret_cast<const char*>(data + i), len);
    i += len;
    key = key.substr(0, key.find('\0'));

    std::string fault;
    switch (op % 6) {
      case 0:
        fault = oracle.insert(key, op & 0x08, op & 0x10);
        break;
      case 1:
        fault = oracle.remove(key);
        break;
      case 2:
        fault = oracle.contains(key);
        break;
      case 3:
        fault = oracle.prefixWalk(key, (op >> 3) % 5, op & 0x80);
        break;
      case 4:
        fault = oracle.checkStructure();
        break;
      case 5:
        fault = oracle.clear();
        break;
    }
    if (!fault.empty()) {
      std::fprintf(stderr, "crit-bit tree disagrees with the map: %s\n", fault.c_str());
      std::abort();
    }
  }
  std::string fault = oracle.checkStructure();
  if (fault.empty()) fault = oracle.prefixWalk("", 0, false);
  if (!fault.empty()) {
    std::fprintf(stderr, "crit-bit tree disagrees with the map: %s\n", fault.c_str());
    std::abort();
  }
  return 0;
}
