#include <dlfcn.h>
#include <kest/weight_quant/arq.h>
#include <kest/weight_quant/ulq.h>
#include <malloc.h>
#include <tests/test_util.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace {

/// What a library that goes and comes could leave behind: mappings, threads, bytes of the heap.
std::array<std::size_t, 3> Leftovers() {
    std::ifstream maps("/proc/self/maps");
    const auto numMappings = std::count(std::istreambuf_iterator<char>(maps), {}, '\n');
    const auto numThreads = std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
    return {static_cast<std::size_t>(numMappings), static_cast<std::size_t>(numThreads), mallinfo2().uordblks};
}

// Neither kest nor an OpenMP runtime is linked to this program: both come and go with dlopen and dlclose, or stay.
TEST(Load, OpenedAndClosedAThousandTimes) {
    const std::vector<float> values = MixedValues<float>(1 << 18, 1);  // worth a parallel region
    std::vector<float> out(values.size());
    float scale = 0.125f;
    int offset = -8;
    std::array<std::size_t, 3> early{};
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
        if (i == 100) early = Leftovers();
    }
    EXPECT_EQ(early, Leftovers());
}

}  // namespace
