#ifndef KEST_EXAMPLES_DIGITS_NETWORK_H_
#define KEST_EXAMPLES_DIGITS_NETWORK_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// The network and its images: plain C++ that knows nothing of quantisation. Failures are std::runtime_error.

namespace digits {

/// Activations of n images, NHWC.
struct Tensor {
    int n;
    int h;
    int w;
    int c;
    std::vector<float> data;
};

/// A convolution padded with zeros to keep height and width; a dense layer is a 1x1 kernel on 1x1 images.
struct Layer {
    std::string name;
    int kernelHeight;
    int kernelWidth;
    int inChannels;
    int outChannels;
    bool pooled;                 // 2x2 maximum after ReLU
    std::vector<float> weights;  // [kernelHeight][kernelWidth][inChannels][outChannels]
    std::vector<float> bias;     // [outChannels]
};

/// Layers in the order they run; ReLU follows each but the last, which gives one score for each digit.
using Network = std::vector<Layer>;

struct Images {
    Tensor pixels;  // one channel, 0 to 1
    std::vector<uint8_t> labels;
};

struct Dataset {
    Images training;
    Images heldOut;
};

/// Both read the files that train.py writes and describes.
Network LoadNetwork(const std::string& path);
Dataset LoadDataset(const std::string& path);

/// The `count` images of `images` from `first` on.
Tensor Slice(const Tensor& images, int first, int count);

/// Called with a layer's index and its input before the layer runs. Whatever it makes of the input is what the layer
/// sees: look at it to calibrate, change it to quantise.
using InputHook = std::function<void(size_t layer, std::vector<float>& input)>;

/// The network's scores, [n][1][1][digits].
Tensor Run(const Network& network, Tensor images, const InputHook& onInput);

/// Percentage of images whose best score is their label's.
double Accuracy(const Network& network, const Images& images, const InputHook& onInput);

}  // namespace digits

#endif  // KEST_EXAMPLES_DIGITS_NETWORK_H_
