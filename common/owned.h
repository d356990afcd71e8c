// Owning pointers for memory from malloc, for stdio files and for objects of C libraries.
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

// Frees an object of a C library: std::unique_ptr<natsMsg, Free<natsMsg_Destroy>>.
template <auto Function> struct Free {
    template <typename Object> void operator()(Object *object) const noexcept { Function(object); }
};

} // namespace tavipc
