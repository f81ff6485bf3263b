// Small file helpers that every writer of the daemon uses, so that every file it writes is created with
// mode 0600 and replaced atomically.
//
// Threading: stateless; safe from any thread (callers serialise writes to the same path).
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace vorlen {

// Writes `bytes` to a temporary file beside `path` (mode 0600), fsyncs it, renames it over `path` and
// fsyncs the folder, so that the new name survives a power cut as well as the new content. Returns false,
// leaving any old file intact and no temporary behind, on failure; *error gets the reason.
bool writeFileAtomically(const std::filesystem::path& path, std::span<const uint8_t> bytes,
                         std::string* error = nullptr);
bool writeFileAtomically(const std::filesystem::path& path, std::string_view text,
                         std::string* error = nullptr);

// fsyncs the folder `dir`, which makes the renames and creations done in it durable. False, with the
// reason in *error, when the folder cannot be opened or synced.
bool syncDirectory(const std::filesystem::path& dir, std::string* error = nullptr);

// The whole file, or nullopt when it cannot be opened or read. `maxBytes` bounds what is accepted.
std::optional<std::vector<uint8_t>> readWholeFile(const std::filesystem::path& path,
                                                  size_t maxBytes = 64u << 20, std::string* error = nullptr);

// Creates `dir` and its parents with `mode` (each created component), and tightens `dir` itself to `mode`.
bool ensureDirectory(const std::filesystem::path& dir, unsigned mode, std::string* error = nullptr);

}  // namespace vorlen
