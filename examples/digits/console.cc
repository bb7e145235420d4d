#include "console.h"

#include <getopt.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace digits {
namespace {

constexpr int kMaxEpochs = 100;
constexpr int kMaxGroup = 64;  // of weights for --sparse

void PrintUsage(std::FILE* stream) {
    std::fprintf(
        stream,
        "usage: digits [--bits 2..8] [--batches 1..%d] [--calibration ifmr|hfmg] [--weights arq|nuq]\n"
        "              [--clusters 1..256] [--retrain-bits 2..8] [--epochs 1..%d] [--prune RATIO] [--sparse N:M]\n"
        "              [--balance] [--dump DIR] [--record FILE] [--data DIR] [--help]\n",
        kMaxBatches, kMaxEpochs);
}

void PrintHelp() {
    const Options defaults;
    PrintUsage(stdout);
    std::printf(
        "\nQuantises a small convolutional network that reads handwritten digits, stores the factors in a\n"
        "record file, reads them back and compares the quantised network, and the integers that a device\n"
        "computes, with the float one. Then retrains it for fewer bits.\n\n"
        "  --bits N                 width of activations and of uniform weights, 2 to 8 (default %d)\n"
        "  --batches N              calibration batches of %d images, 1 to %d (default %d)\n"
        "  --calibration ifmr|hfmg  activations: from all values, or from histograms (default ifmr)\n"
        "  --weights arq|nuq        weights: on a uniform grid, or clustered (default arq)\n"
        "  --clusters N             clusters of a layer's weights, 1 to 256 (default %d)\n"
        "  --retrain-bits N         width of weights and activations in retraining, 2 to 8 (default %d)\n"
        "  --epochs N               passes over the training images, 1 to %d (default %d)\n"
        "  --prune RATIO            take the weakest channels out of each layer first: 0.25 for a quarter\n"
        "  --sparse N:M             keep N of every M weights along the input channels, M up to %d: 2:4\n"
        "  --balance                share difficult ranges between activations and weights before calibration\n"
        "  --dump DIR               write the tensors of a batch, as the deployed network sees them, to a directory\n"
        "  --record FILE            where the factors go; an old file is replaced (default %s)\n"
        "  --data DIR               where network.bin and images.bin are (default: those of the source tree)\n"
        "  --help                   this text\n",
        defaults.bits, kBatchSize, kMaxBatches, defaults.batches, defaults.clusters, defaults.retrainBits, kMaxEpochs,
        defaults.epochs, kMaxGroup, defaults.record.c_str());
}

[[noreturn]] void RejectOptions() {
    PrintUsage(stderr);
    std::exit(2);
}

/// Whether all of [text, end) is the number.
template <typename T>
bool IsNumber(const char* text, const char* end, T& number) {
    const auto [parsed, error] = std::from_chars(text, end, number);
    return error == std::errc() && parsed == end;
}

int ParseNumber(const char* option, const char* text, int low, int high) {
    int number = 0;
    if (!IsNumber(text, text + std::strlen(text), number) || number < low || number > high) {
        std::fprintf(stderr, "digits: %s takes a whole number from %d to %d, not '%s'\n", option, low, high, text);
        RejectOptions();
    }
    return number;
}

float ParseRatio(const char* option, const char* text) {
    float ratio = 0;
    if (!IsNumber(text, text + std::strlen(text), ratio) || !(ratio > 0 && ratio < 1)) {
        std::fprintf(stderr, "digits: %s takes a number between 0 and 1, not '%s'\n", option, text);
        RejectOptions();
    }
    return ratio;
}

/// "N:M", N of every M.
void ParseSparsity(const char* option, const char* text, int& numKept, int& groupSize) {
    const char* colon = std::strchr(text, ':');
    if (colon == nullptr || !IsNumber(text, colon, numKept) ||
        !IsNumber(colon + 1, text + std::strlen(text), groupSize) || numKept < 1 || numKept >= groupSize ||
        groupSize > kMaxGroup) {
        std::fprintf(stderr, "digits: %s takes N:M with N from 1 and below M, M up to %d, not '%s'\n", option,
                     kMaxGroup, text);
        RejectOptions();
    }
}

/// The index of the word that the text is.
int ParseWord(const char* option, const char* text, const std::vector<std::string>& words) {
    const auto found = std::find(words.begin(), words.end(), text);
    if (found == words.end()) {
        std::fprintf(stderr, "digits: %s takes", option);
        for (const std::string& word : words)
            std::fprintf(stderr, "%s %s", word == words[0] ? "" : " or", word.c_str());
        std::fprintf(stderr, ", not '%s'\n", text);
        RejectOptions();
    }
    return static_cast<int>(found - words.begin());
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

/// "2-3", or "2" for equal ones.
std::string RangeText(int smallest, int largest) {
    if (smallest == largest) return std::to_string(smallest);
    return std::to_string(smallest) + "-" + std::to_string(largest);
}

}  // namespace

Options ParseOptions(int argc, char** argv) {
    enum : int {
        kBits = 1,
        kBatches,
        kCalibration,
        kWeights,
        kClusters,
        kRetrainBits,
        kEpochs,
        kPrune,
        kSparse,
        kBalance,
        kDump,
        kRecord,
        kData,
        kHelp
    };
    const option known[] = {{"bits", required_argument, nullptr, kBits},
                            {"batches", required_argument, nullptr, kBatches},
                            {"calibration", required_argument, nullptr, kCalibration},
                            {"weights", required_argument, nullptr, kWeights},
                            {"clusters", required_argument, nullptr, kClusters},
                            {"retrain-bits", required_argument, nullptr, kRetrainBits},
                            {"epochs", required_argument, nullptr, kEpochs},
                            {"prune", required_argument, nullptr, kPrune},
                            {"sparse", required_argument, nullptr, kSparse},
                            {"balance", no_argument, nullptr, kBalance},
                            {"dump", required_argument, nullptr, kDump},
                            {"record", required_argument, nullptr, kRecord},
                            {"data", required_argument, nullptr, kData},
                            {"help", no_argument, nullptr, kHelp},
                            {}};
    Options options;
    for (int found; (found = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
        switch (found) {
            case kBits:
                options.bits = ParseNumber("--bits", optarg, 2, 8);
                break;
            case kBatches:
                options.batches = ParseNumber("--batches", optarg, 1, kMaxBatches);
                break;
            case kCalibration:
                options.calibration = static_cast<Calibration>(ParseWord("--calibration", optarg, {"ifmr", "hfmg"}));
                break;
            case kWeights:
                options.weights = static_cast<WeightMethod>(ParseWord("--weights", optarg, {"arq", "nuq"}));
                break;
            case kClusters:
                options.clusters = ParseNumber("--clusters", optarg, 1, 256);
                break;
            case kRetrainBits:
                options.retrainBits = ParseNumber("--retrain-bits", optarg, 2, 8);
                break;
            case kEpochs:
                options.epochs = ParseNumber("--epochs", optarg, 1, kMaxEpochs);
                break;
            case kPrune:
                options.prune = ParseRatio("--prune", optarg);
                break;
            case kSparse:
                ParseSparsity("--sparse", optarg, options.sparseKept, options.sparseGroup);
                break;
            case kBalance:
                options.balance = true;
                break;
            case kDump:
                options.dump = ParsePath("--dump", optarg);
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
    const char* activations = options.calibration == Calibration::kIfmr ? "IFMR" : "HFMG";
    const std::string weights = options.weights == WeightMethod::kArq
                                    ? "ARQ weights"
                                    : "NUQ weights (" + std::to_string(options.clusters) + " clusters)";
    std::printf("%d bits, %s activations from %d training images, %s, tested on %d held-out images\n\n", options.bits,
                activations, options.batches * kBatchSize, weights.c_str(), report.numHeldOut);
    std::printf("        activations: the input of the layer       weights: a scale for each output channel\n");
    std::printf(
        "layer       scale  offset  clipped      SNR       shape         smallest   largest      SNR   shift\n");
    for (const LayerReport& layer : report.layers) {
        std::printf("%-6s  %9.6f  %6d  %5.2f %%  %7s       %-12s  %8.6f  %8.6f  %7s  %6s\n", layer.name.c_str(),
                    layer.inputScale, layer.inputOffset, layer.clipped, Decibels(layer.inputSnr).c_str(),
                    layer.weightShape.c_str(), layer.smallestWeightScale, layer.largestWeightScale,
                    Decibels(layer.weightSnr).c_str(), RangeText(layer.smallestShift, layer.largestShift).c_str());
    }
    std::printf("\nclipped: calibration values beyond the range of the codes; SNR: signal to quantisation noise;\n");
    std::printf("shift: bits by which channels shift accumulators to 16 bits; both searches agree on %d of %d\n\n",
                report.numEqualShifts, report.numShifts);
    std::printf("phase                         seconds\n");
    for (const auto& [phase, seconds] : watch.Laps()) std::printf("%-27s  %8.6f\n", phase.c_str(), seconds);
    std::printf("\nrecord file: %s\n", options.record.c_str());
    for (const Change& change : report.changes) {
        if (report.changes.size() == 1) break;  // nothing was done
        std::printf("%-12s float %.2f %%  %s\n", change.name.c_str(), change.accuracy, change.details.c_str());
    }
    std::printf("accuracy: float %.2f %%, quantised %.2f %%, deployed %.2f %%\n", report.floatAccuracy,
                report.quantisedAccuracy, report.deployedAccuracy);
    std::printf("at %d bits: float %.2f %%, quantised %.2f %%, retrained %.2f %%\n", options.retrainBits,
                report.floatAccuracy, report.beforeRetraining, report.retrainedAccuracy);
}

}  // namespace digits
