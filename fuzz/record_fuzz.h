#ifndef KEST_FUZZ_RECORD_FUZZ_H_
#define KEST_FUZZ_RECORD_FUZZ_H_

#include <kest/record/proto_simulator/record_writer.h>

#include <fuzzer/FuzzedDataProvider.h>
#include <tests/record/parse.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

/// Ends the run with a finding.
inline void Require(bool holds, const char* rule) {
    if (holds) return;
    std::cerr << "broken: " << rule << std::endl;
    std::abort();
}

inline std::string& KeyOf(const kest_tf::RecordData& record) {
    return static_cast<kest_tf::StringData*>(record.children.front().second)->scalar;
}

/// A file of this process, in the directory that TMPDIR names.
inline const std::string& ScratchFile() {
    static const auto path = std::filesystem::temp_directory_path() / ("kest-fuzz-" + std::to_string(getpid()));
    return path.native();
}
inline std::string ReadScratch() {
    std::ostringstream text;
    text << std::ifstream(ScratchFile(), std::ios::binary).rdbuf();
    return text.str();
}
inline void WriteScratch(const std::string& text) {
    std::ofstream(ScratchFile(), std::ios::binary) << text;
}

/// Any bits: NaN, infinities and subnormals too.
template <typename T>
std::vector<T> AnyValues(FuzzedDataProvider& provider, int length) {
    std::vector<T> values(static_cast<std::size_t>(length));
    for (T& value : values) {
        const auto bits = provider.ConsumeIntegral<std::uint32_t>();
        static_assert(sizeof value == sizeof bits);
        std::memcpy(&value, &bits, sizeof value);
    }
    return values;
}

#endif  // KEST_FUZZ_RECORD_FUZZ_H_
