// How much memory there is, and which directories are made of it. Internal.
#pragma once

#include <filesystem>

namespace korimg {

struct StoreOptions;

/// Answers the bytes of memory that this process may have at most: the machine's, or the limit of the
/// container (control groups of either version) when that is lower. `root` is where the system's files are.
long long UsableMemory(const std::filesystem::path& root = "/");

/// Answers the directory for temporary files: the one given, else the system's, whether it exists or not.
std::filesystem::path SwapDirectory(const std::filesystem::path& wanted);

/// Answers the budget of a store: the one given, else the default one.
long long StoreBudget(const StoreOptions& options);

/// True when what is written to a directory stays in memory.
bool IsInMemory(const std::filesystem::path& directory);

}  // namespace korimg
