#ifndef KEST_EXAMPLES_DIGITS_CONSOLE_H_
#define KEST_EXAMPLES_DIGITS_CONSOLE_H_

#include <chrono>
#include <string>
#include <utility>
#include <vector>

// What the user of the example meets: options, progress, the table.

namespace digits {

constexpr int kBatchSize = 32;   // images in a calibration batch
constexpr int kMaxBatches = 40;  // as many as the training images fill

enum class Calibration { kIfmr, kHfmg };  // in the order of the options' words
enum class WeightMethod { kArq, kNuq };

struct Options {
    int bits = 8;
    int batches = 16;
    Calibration calibration = Calibration::kIfmr;
    WeightMethod weights = WeightMethod::kArq;
    int clusters = 16;  // of NUQ
    int retrainBits = 4;
    int epochs = 12;
    float prune = 0;      // part of each layer's channels
    int sparseKept = 0;   // N of N:M,
    int sparseGroup = 0;  // M; 0: not sparse
    bool balance = false;
    std::string dump;  // none: nothing is dumped
    std::string record = "digits.record";
    std::string data = KEST_DIGITS_DATA;
};

/// Ends the program after --help (status 0) or a bad option (a usage line on standard error, status 2).
Options ParseOptions(int argc, char** argv);

/// One line on standard error that each text replaces; nothing at all unless standard error is a terminal.
class Progress {
public:
    Progress();
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    void Show(const std::string& text);

private:
    bool terminal_;
};

/// Seconds of each phase of the program, one after the other.
class Stopwatch {
public:
    /// The phase since the last Lap, or since the start, ends here.
    void Lap(const std::string& phase);
    const std::vector<std::pair<std::string, double>>& Laps() const { return laps_; }

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    std::vector<std::pair<std::string, double>> laps_;
};

/// A line of the table. Signal-to-noise ratios are in dB, infinity where quantisation changes nothing.
struct LayerReport {
    std::string name;
    float inputScale;
    int inputOffset;
    double clipped;  // percent
    double inputSnr;
    std::string weightShape;
    float smallestWeightScale;
    float largestWeightScale;
    double weightSnr;
    int smallestShift;
    int largestShift;
};

/// What was done to the float network, and its accuracy from then on.
struct Change {
    std::string name;
    double accuracy;
    std::string details;
};

struct Report {
    std::vector<LayerReport> layers;
    int numHeldOut;
    int numShifts;  // of all channels, and for how many of them both searches found the same
    int numEqualShifts;
    std::vector<Change> changes;  // the first is the network as trained
    double floatAccuracy;         // of the network that is quantised; percent, as all of them
    double quantisedAccuracy;
    double deployedAccuracy;
    double beforeRetraining;
    double retrainedAccuracy;
};

/// Prints the table, the phases, the changes and, as the last two lines, the accuracies.
void Print(const Report& report, const Options& options, const Stopwatch& watch);

}  // namespace digits

#endif  // KEST_EXAMPLES_DIGITS_CONSOLE_H_
