// The parser: any text gives a tree or a status, in memory that a multiple of the text bounds.

#include <fuzz/record_fuzz.h>
#include <sanitizer/allocator_interface.h>

#include <algorithm>

namespace {

std::size_t live = 0;
std::size_t peak = 0;
bool counts = false;

void OnMalloc(const volatile void*, std::size_t size) {
    if (counts) peak = std::max(peak, live += size);
}
void OnFree(const volatile void* pointer) {
    if (counts && pointer != nullptr) live -= __sanitizer_get_allocated_size(pointer);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int hooked = __sanitizer_install_malloc_and_free_hooks(OnMalloc, OnFree);
    Require(hooked != 0, "allocations can be counted");
    std::string text(reinterpret_cast<const char*>(data), size);
    live = peak = size;
    counts = true;
    {
        Root root;
        Parse(std::move(text), root);
    }
    counts = false;
    constexpr std::size_t kSchema = 8192;  // for an empty text
    // The 256 that docs/record-file.md states are with what the heap adds to each block.
    Require(peak <= kSchema + 224 * size, "the parser needs no more than 224 bytes for each byte of the text");
    return 0;
}
