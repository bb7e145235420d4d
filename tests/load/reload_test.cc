#include <dlfcn.h>
#include <kest/weight_quant/arq.h>
#include <kest/weight_quant/ulq.h>
#include <malloc.h>
#include <tests/test_util.h>

#include <filesystem>
#include <fstream>
#include <iterator>

namespace {

/// What a library that goes and comes could leave behind.
struct Leftovers {
    std::ptrdiff_t mappings;
    std::ptrdiff_t threads;
    std::size_t heapBytes;
};
Leftovers Count() {
    std::ifstream maps("/proc/self/maps");
    return {std::count(std::istreambuf_iterator<char>(maps), {}, '\n'),
            std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}), mallinfo2().uordblks};
}

// Neither kest nor an OpenMP runtime is linked to this program: both come and go with dlopen and dlclose, or stay.
TEST(Load, OpenedAndClosedAThousandTimes) {
    const std::vector<float> values = MixedValues<float>(1 << 18, 1);  // worth a parallel region
    std::vector<float> out(values.size());
    float scale = 0.125f;
    int offset = -8;
    Leftovers early{};
    for (int i = 0; i < 1000; ++i) {
        void* library = dlopen(KEST_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(nullptr, library) << dlerror();
        const auto arq = reinterpret_cast<decltype(&ArqQuantFloatPython)>(dlsym(library, "ArqQuantFloatPython"));
        const auto ulq = reinterpret_cast<decltype(&KestCommon::Ulq<float>)>(
            dlsym(library, "_ZN10KestCommon3UlqIfEEvPKT_PS1_iRKN4util9FloatDataERKNS5_7IntDataEi"));
        ASSERT_TRUE(arq != nullptr && ulq != nullptr) << dlerror();
        float weights[] = {-1, 0.5f};
        ASSERT_EQ(STATUS_OK, arq(weights, 2, {8, true, false}, {1, &scale}, {1, &offset}));
        ASSERT_EQ(1 / 128.0f, scale);
        if (i % 10 == 0) ulq(values.data(), out.data(), static_cast<int>(values.size()), {1, &scale}, {1, &offset}, 4);
        ASSERT_EQ(0, dlclose(library));
        if (i == 100) early = Count();
    }
    const Leftovers late = Count();
    EXPECT_EQ(early.mappings, late.mappings);
    EXPECT_EQ(early.threads, late.threads);
    EXPECT_EQ(early.heapBytes, late.heapBytes);
}

}  // namespace
