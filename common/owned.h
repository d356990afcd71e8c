// Owning pointers for memory from malloc and for stdio files.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace tavipc {

struct FreeMemory {
    void operator()(void *memory) const noexcept { std::free(memory); }
};
template <typename T> using MallocPtr = std::unique_ptr<T, FreeMemory>;

struct CloseFile {
    void operator()(FILE *file) const noexcept { std::fclose(file); }
};
using FilePtr = std::unique_ptr<FILE, CloseFile>;

} // namespace tavipc
