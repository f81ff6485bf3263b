// Fuzz target for the allow-list parser: the input is an allow-list file, run through the whole
// signature computation for a fixed set of installed applications. Any crash or sanitizer report is a
// finding; a signature, when there is one, must decode to a record of at least 12 bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "network/AppWhitelistSignature.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::vector<vorlen::InstalledApplication> installed = {{"org.example.Notes", "1.0"},
                                                                      {"org.example.Maps", "2"},
                                                                      {"firefox-esr", "115"},
                                                                      {"a", "1"},
                                                                      {"b", "1"}};
  auto signature = vorlen::processWhitelist(std::span(data, size), installed);
  if (signature && signature->size() < 16) std::abort();  // base64 of 12 bytes is 16 characters
  return 0;
}
