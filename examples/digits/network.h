#ifndef KEST_EXAMPLES_DIGITS_NETWORK_H_
#define KEST_EXAMPLES_DIGITS_NETWORK_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// The network and its images: plain C++ that knows nothing of quantisation. Failures are std::runtime_error. Every sum
// is in single precision and in one order, so that a run gives the same bits each time.

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

    std::vector<float> inputDivisors;  // what each input channel is divided by before the layer sees it; none: 1
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

/// The `count` images from `first` on.
Tensor Slice(const Tensor& images, int first, int count);

/// The layer's sums, before ReLU and pooling:
/// out[y][x][o] = bias[o] + the sum over ky, kx, i of in[y + ky - kh / 2][x + kx - kw / 2][i] * weights[ky][kx][i][o].
Tensor Convolve(const Tensor& in, const Layer& layer);

/// Called with a layer's index and its input before the layer runs. Whatever it makes of the values is what the layer
/// sees: look at them to calibrate, change them to quantise.
using InputHook = std::function<void(size_t layer, Tensor& input)>;

/// The same for the layer's sums, before ReLU and pooling.
using SumHook = std::function<void(size_t layer, Tensor& sums)>;

/// What the backward pass of a layer needs of its forward pass.
struct Trace {
    Tensor input;   // as the layer saw it
    Tensor output;  // after ReLU, before pooling
};

/// The network's scores, [n][1][1][digits]. With `traces`, one for each layer is stored there.
Tensor Run(const Network& network, Tensor images, const InputHook& onInput, std::vector<Trace>* traces = nullptr,
           const SumHook& onSums = {});

/// The gradients of a loss with respect to a layer's parameters, laid out as these.
struct Gradients {
    std::vector<float> weights;
    std::vector<float> bias;
};

/// Called with a layer's index and the gradient with respect to what the layer saw; to be made that with respect to
/// what the hook of the forward pass was given.
using GradientHook = std::function<void(size_t layer, std::vector<float>& gradient)>;

/// The gradients of all layers from that of the scores, layer by layer from the last to the first.
std::vector<Gradients> Backward(const Network& network, const std::vector<Trace>& traces, std::vector<float> scores,
                                const GradientHook& onGradient);

/// Percentage of images whose best score, the first of equal ones, is their label's.
double PercentRight(const Tensor& scores, const std::vector<uint8_t>& labels);

/// That of the network's scores.
double Accuracy(const Network& network, const Images& images, const InputHook& onInput);

}  // namespace digits

#endif  // KEST_EXAMPLES_DIGITS_NETWORK_H_
