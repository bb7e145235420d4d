#include "console.h"

#include <getopt.h>
#include <unistd.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace digits {
namespace {

void PrintUsage(std::FILE* stream) {
    std::fprintf(stream, "usage: digits [--bits 2..8] [--batches 1..%d] [--record FILE] [--data DIR] [--help]\n",
                 kMaxBatches);
}

void PrintHelp() {
    const Options defaults;
    PrintUsage(stdout);
    std::printf(
        "\nQuantises a small convolutional network that reads handwritten digits, stores the factors in a\n"
        "record file, reads them back and compares the quantised network with the float one.\n\n"
        "  --bits N       width of the quantised weights and activations, 2 to 8 (default %d)\n"
        "  --batches N    calibration batches of %d images, 1 to %d (default %d)\n"
        "  --record FILE  where the factors go; an old file is replaced (default %s)\n"
        "  --data DIR     where network.bin and images.bin are (default: those of the source tree)\n"
        "  --help         this text\n",
        defaults.bits, kBatchSize, kMaxBatches, defaults.batches, defaults.record.c_str());
}

[[noreturn]] void RejectOptions() {
    PrintUsage(stderr);
    std::exit(2);
}

int ParseNumber(const char* option, const char* text, int low, int high) {
    int number = 0;
    const char* end = text + std::strlen(text);
    const auto [parsed, error] = std::from_chars(text, end, number);
    if (error != std::errc() || parsed != end || number < low || number > high) {
        std::fprintf(stderr, "digits: %s takes a whole number from %d to %d, not '%s'\n", option, low, high, text);
        RejectOptions();
    }
    return number;
}

std::string ParsePath(const char* option, const char* text) {
    if (*text == '\0') {
        std::fprintf(stderr, "digits: %s takes a path, not an empty text\n", option);
        RejectOptions();
    }
    return text;
}

/// "41.7 dB", or "exact" for an infinite ratio.
std::string Decibels(double ratio) {
    if (std::isinf(ratio)) return "exact";
    char text[32];
    std::snprintf(text, sizeof text, "%.1f dB", ratio);
    return text;
}

}  // namespace

Options ParseOptions(int argc, char** argv) {
    enum : int { kBits = 1, kBatches, kRecord, kData, kHelp };
    const option known[] = {
        {"bits", required_argument, nullptr, kBits},     {"batches", required_argument, nullptr, kBatches},
        {"record", required_argument, nullptr, kRecord}, {"data", required_argument, nullptr, kData},
        {"help", no_argument, nullptr, kHelp},           {}};
    Options options;
    for (int found; (found = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
        switch (found) {
            case kBits:
                options.bits = ParseNumber("--bits", optarg, 2, 8);
                break;
            case kBatches:
                options.batches = ParseNumber("--batches", optarg, 1, kMaxBatches);
                break;
            case kRecord:
                options.record = ParsePath("--record", optarg);
                break;
            case kData:
                options.data = ParsePath("--data", optarg);
                break;
            case kHelp:
                PrintHelp();
                std::exit(0);
            default:  // getopt_long has said what is wrong
                RejectOptions();
        }
    }
    if (optind < argc) {
        std::fprintf(stderr, "digits: unexpected argument '%s'\n", argv[optind]);
        RejectOptions();
    }
    return options;
}

Progress::Progress() : terminal_(isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
    Show("");
}

void Progress::Show(const std::string& text) {
    if (terminal_) std::fprintf(stderr, "\r\033[K%s", text.c_str());  // back to the start of the line, clear it
}

void Stopwatch::Lap(const std::string& phase) {
    const auto now = std::chrono::steady_clock::now();
    laps_.emplace_back(phase, std::chrono::duration<double>(now - start_).count());
    start_ = now;
}

void Print(const Report& report, const Options& options, const Stopwatch& watch) {
    std::printf("%d bits, calibrated on %d training images, tested on %d held-out ones\n\n", options.bits,
                options.batches * kBatchSize, report.numHeldOut);
    std::printf("        activations: the input of the layer       weights: a scale for each output channel\n");
    std::printf("layer       scale  offset  clipped      SNR       shape         smallest   largest      SNR\n");
    for (const LayerReport& layer : report.layers) {
        std::printf("%-6s  %9.6f  %6d  %5.2f %%  %7s       %-12s  %8.6f  %8.6f  %7s\n", layer.name.c_str(),
                    layer.inputScale, layer.inputOffset, layer.clipped, Decibels(layer.inputSnr).c_str(),
                    layer.weightShape.c_str(), layer.smallestWeightScale, layer.largestWeightScale,
                    Decibels(layer.weightSnr).c_str());
    }
    std::printf("\nclipped: calibration values beyond the range of the codes; SNR: signal to quantisation noise\n\n");
    std::printf("phase                       seconds\n");
    for (const auto& [phase, seconds] : watch.Laps()) std::printf("%-25s  %8.6f\n", phase.c_str(), seconds);
    std::printf("\nrecord file: %s\n", options.record.c_str());
    std::printf("accuracy: float %.2f %%, quantised %.2f %%\n", report.floatAccuracy, report.quantisedAccuracy);
}

}  // namespace digits
