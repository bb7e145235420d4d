// Runs every exported kernel on arguments drawn from the number of the case, and hashes what it returns, writes and
// leaves alone: the same on every machine, with every compiler and any number of threads.
//
//     exactness [--quick] [--kernel NAME] [--case NUMBER]    prints "<kernel> <case> <hash>" for each case
//     exactness ... --blocks                                 prints the hashes of blocks of cases, expected.txt
//     exactness ... --compare FILE                           prints the blocks that differ from such a file

#include <kest/kernel_frame/log_sink.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "case.h"

namespace exactness {

namespace {

constexpr int kNumCases = 10000;
constexpr int kNumQuickCases = 500;

/// The first case of the block behind that of `number`: the quick ones are in small blocks.
int BlockEnd(int number) {
    const int size = number < kNumQuickCases ? 10 : 250;
    return number - number % size + size;
}

std::uint64_t HashOf(const std::string& text) {
    std::uint64_t hash = 0xCBF29CE484222325;  // FNV-1a
    for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3;
    return hash;
}

/// The log lines of a case in any order, without their source lines: "[ERROR][Name][] text".
std::atomic<std::uint64_t> logHash;
void AddToLog(const char* line) {
    std::string text = line;
    const std::size_t number = text.find("][", text.find("][") + 1) + 2;
    logHash += HashOf(text.erase(number, text.find(']', number) - number));
}

std::uint64_t HashOfCase(const std::string& kernel, void (*run)(Case&), int number) {
    Case c(HashOf(kernel) + static_cast<std::uint64_t>(number));
    logHash = 0;
    run(c);
    c.Result(logHash.load());
    return c.Hash();
}

int Run(int argc, char** argv) {
    std::map<std::string, std::string> options;
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        const bool isFlag = name == "--quick" || name == "--blocks";
        if (!isFlag && (i + 1 == argc || (name != "--kernel" && name != "--case" && name != "--compare"))) {
            std::fprintf(stderr, "%s is no option, or lacks its value; the options are in main.cc\n", argv[i]);
            return 2;
        }
        options[name] = isFlag ? "" : argv[++i];
    }
    const bool oneCase = options.count("--case") > 0;
    const int first = oneCase ? std::atoi(options["--case"].c_str()) : 0;
    const int end = oneCase ? first + 1 : options.count("--quick") > 0 ? kNumQuickCases : kNumCases;
    const bool printBlocks = options.count("--blocks") > 0;
    const bool compare = options.count("--compare") > 0;
    std::map<std::string, std::string> expected;
    std::ifstream in(options["--compare"]);
    for (std::string line; std::getline(in, line);) expected[line.substr(0, line.find(' '))] = line;

    util::SetLogSink(AddToLog);
    int numDifferent = 0;
    for (const auto& [kernel, run] : Kernels()) {
        if (options.count("--kernel") > 0 && options["--kernel"] != kernel) continue;
        std::string line = kernel;
        for (int number = first; number < end;) {
            std::uint64_t block = 0;
            const int begin = number;
            for (const int next = std::min(end, BlockEnd(begin)); number < next; ++number) {
                const std::uint64_t hash = HashOfCase(kernel, run, number);
                block = (block ^ hash) * 0x9E3779B97F4A7C15;
                if (!printBlocks && !compare) std::printf("%s %d %016lx\n", kernel.c_str(), number, hash);
            }
            char text[10];
            std::snprintf(text, sizeof text, " %08lx", block >> 32);
            const std::string& wanted = expected[kernel];
            if (compare && wanted.compare(std::min(line.size(), wanted.size()), 9, text) != 0) {
                ++numDifferent;
                std::printf("%s: cases %d to %d differ\n", kernel.c_str(), begin, number - 1);
            }
            line += text;
        }
        if (printBlocks) std::puts(line.c_str());
    }
    return numDifferent == 0 ? 0 : 1;
}

}  // namespace
}  // namespace exactness

int main(int argc, char** argv) {
    return exactness::Run(argc, argv);
}
