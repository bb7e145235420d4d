#include "network.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <utility>

namespace digits {
namespace {

/// Reads the little-endian data files on a little-endian machine.
class Reader {
public:
    Reader(const std::string& path, const char (&magic)[9]) : path_(path), file_(path, std::ios::binary) {
        if (!file_) throw std::runtime_error("cannot open " + path_);
        char found[8];
        Read(found, 8);
        if (std::memcmp(found, magic, 8) != 0) Fail();
    }

    template <typename T>
    void Read(T* values, size_t count) {
        if (!file_.read(reinterpret_cast<char*>(values), static_cast<std::streamsize>(count * sizeof(T)))) Fail();
    }

    /// A count or a size; none in these files is 0 or large.
    int ReadSize() {
        uint32_t value;
        Read(&value, 1);
        if (value == 0 || value > 10000) Fail();
        return static_cast<int>(value);
    }

    [[noreturn]] void Fail() const { throw std::runtime_error(path_ + " is damaged or not of this example"); }

private:
    std::string path_;
    std::ifstream file_;
};

Images ReadImages(Reader& reader, int count, int height, int width) {
    const size_t size = static_cast<size_t>(height) * width;
    Images images{{count, height, width, 1, {}}, {}};
    std::vector<uint8_t> levels(size);
    for (int image = 0; image < count; ++image) {
        uint8_t label;
        reader.Read(&label, 1);
        reader.Read(levels.data(), size);
        images.labels.push_back(label);
        for (const uint8_t level : levels) images.pixels.data.push_back(level / 16.0f);
    }
    return images;
}

/// Calls visit(pixel, weight) for each place of the kernel over (y, x) that lies in the image: the channels of the
/// input there and the index of the first weight that they meet.
template <typename Visit>
void ForEachKernelPlace(const Tensor& in, const Layer& layer, int image, int y, int x, Visit visit) {
    for (int ky = 0; ky < layer.kernelHeight; ++ky) {
        const int inY = y + ky - layer.kernelHeight / 2;
        if (inY < 0 || inY >= in.h) continue;
        for (int kx = 0; kx < layer.kernelWidth; ++kx) {
            const int inX = x + kx - layer.kernelWidth / 2;
            if (inX < 0 || inX >= in.w) continue;
            visit(&in.data[((static_cast<size_t>(image) * in.h + inY) * in.w + inX) * in.c],
                  static_cast<size_t>(ky * layer.kernelWidth + kx) * in.c * layer.outChannels);
        }
    }
}

/// The largest of each 2x2 block of pixels, channel by channel.
Tensor MaxPool(const Tensor& in) {
    Tensor out{in.n, in.h / 2, in.w / 2, in.c, {}};
    const size_t row = static_cast<size_t>(in.w) * in.c;
    for (int image = 0; image < out.n; ++image) {
        for (int y = 0; y < out.h; ++y) {
            for (int x = 0; x < out.w; ++x) {
                const float* corner = &in.data[(static_cast<size_t>(image) * in.h + 2 * y) * row + 2 * x * in.c];
                for (int c = 0; c < in.c; ++c) {
                    const float* top = corner + c;
                    out.data.push_back(std::max({top[0], top[in.c], top[row], top[row + in.c]}));
                }
            }
        }
    }
    return out;
}

/// The gradient of MaxPool's input: that of each block goes to its largest value, the first of equal ones.
std::vector<float> MaxPoolBackward(const Tensor& in, const std::vector<float>& gradient) {
    std::vector<float> out(in.data.size());
    const size_t row = static_cast<size_t>(in.w) * in.c;
    const float* next = gradient.data();
    for (int image = 0; image < in.n; ++image) {
        for (int y = 0; y + 1 < in.h; y += 2) {
            for (int x = 0; x + 1 < in.w; x += 2) {
                const size_t corner = (static_cast<size_t>(image) * in.h + y) * row + static_cast<size_t>(x) * in.c;
                for (size_t top = corner; top < corner + in.c; ++top) {
                    size_t largest = top;
                    for (const size_t other : {top + in.c, top + row, top + row + in.c}) {
                        if (in.data[other] > in.data[largest]) largest = other;
                    }
                    out[largest] = *next++;
                }
            }
        }
    }
    return out;
}

/// The gradients of Convolve's parameters, summed over all pixels of all images.
Gradients ParameterGradients(const Tensor& in, const Layer& layer, const Tensor& gradient) {
    const int numOut = layer.outChannels;
    Gradients sums{std::vector<float>(layer.weights.size()), std::vector<float>(numOut)};
    const float* pixelGradient = gradient.data.data();
    for (int image = 0; image < in.n; ++image) {
        for (int y = 0; y < in.h; ++y) {
            for (int x = 0; x < in.w; ++x, pixelGradient += numOut) {
                for (int o = 0; o < numOut; ++o) sums.bias[o] += pixelGradient[o];
                ForEachKernelPlace(in, layer, image, y, x, [&](const float* pixel, size_t weight) {
                    float* sum = &sums.weights[weight];
                    for (int i = 0; i < in.c; ++i, sum += numOut) {
                        for (int o = 0; o < numOut; ++o) sum[o] += pixel[i] * pixelGradient[o];
                    }
                });
            }
        }
    }
    return sums;
}

/// The layer whose convolution takes the gradient of the sums to that of the input: the kernel turned by 180 degrees,
/// its channels swapped, no bias. The kernel's height and width are odd.
Layer Turned(const Layer& layer) {
    Layer turned = layer;
    std::swap(turned.inChannels, turned.outChannels);
    turned.bias.assign(turned.outChannels, 0);
    const size_t numPlaces = static_cast<size_t>(layer.kernelHeight) * layer.kernelWidth;
    const size_t numIn = layer.inChannels;
    const size_t numOut = layer.outChannels;
    for (size_t place = 0; place < numPlaces; ++place) {
        for (size_t i = 0; i < numIn; ++i) {
            for (size_t o = 0; o < numOut; ++o) {
                turned.weights[((numPlaces - 1 - place) * numOut + o) * numIn + i] =
                    layer.weights[(place * numIn + i) * numOut + o];
            }
        }
    }
    return turned;
}

/// Divides the channels of a layer's input, or of a gradient with respect to it.
void DivideChannels(const Layer& layer, std::vector<float>& values) {
    const size_t numDivisors = layer.inputDivisors.size();
    if (numDivisors == 0) return;
    for (size_t i = 0; i < values.size(); ++i) values[i] /= layer.inputDivisors[i % numDivisors];
}

/// The layer's view of its input: as it is, or flattened to 1x1 for a dense layer; divided.
void FitInput(Tensor& input, const Layer& layer) {
    if (input.c != layer.inChannels) input = {input.n, 1, 1, input.h * input.w * input.c, std::move(input.data)};
    if (input.c != layer.inChannels) throw std::runtime_error("layer " + layer.name + " does not fit its input");
    DivideChannels(layer, input.data);
}

}  // namespace

Network LoadNetwork(const std::string& path) {
    Reader reader(path, "KESTNET1");
    Network network(reader.ReadSize());
    for (Layer& layer : network) {
        char name[17] = {};
        reader.Read(name, 16);
        layer.name = name;
        layer.kernelHeight = reader.ReadSize();
        layer.kernelWidth = reader.ReadSize();
        layer.inChannels = reader.ReadSize();
        layer.outChannels = reader.ReadSize();
        uint32_t pooled;
        reader.Read(&pooled, 1);
        layer.pooled = pooled != 0;
        layer.weights.resize(static_cast<size_t>(layer.kernelHeight) * layer.kernelWidth * layer.inChannels *
                             layer.outChannels);
        layer.bias.resize(layer.outChannels);
        reader.Read(layer.weights.data(), layer.weights.size());
        reader.Read(layer.bias.data(), layer.bias.size());
    }
    return network;
}

Dataset LoadDataset(const std::string& path) {
    Reader reader(path, "KESTIMG1");
    const int numTraining = reader.ReadSize();
    const int numHeldOut = reader.ReadSize();
    const int height = reader.ReadSize();
    const int width = reader.ReadSize();
    Dataset dataset;
    dataset.training = ReadImages(reader, numTraining, height, width);
    dataset.heldOut = ReadImages(reader, numHeldOut, height, width);
    return dataset;
}

Tensor Slice(const Tensor& images, int first, int count) {
    const auto begin = images.data.begin();
    const ptrdiff_t size = static_cast<ptrdiff_t>(images.h) * images.w * images.c;
    return {count, images.h, images.w, images.c, {begin + first * size, begin + (first + count) * size}};
}

// The output channel is innermost everywhere, so the inner loop runs over contiguous memory and vectorises.
Tensor Convolve(const Tensor& in, const Layer& layer) {
    const int numOut = layer.outChannels;
    Tensor out{in.n, in.h, in.w, numOut, {}};
    out.data.reserve(static_cast<size_t>(in.n) * in.h * in.w * numOut);
    std::vector<float> sum(numOut);
    for (int image = 0; image < in.n; ++image) {
        for (int y = 0; y < in.h; ++y) {
            for (int x = 0; x < in.w; ++x) {
                sum = layer.bias;
                ForEachKernelPlace(in, layer, image, y, x, [&](const float* pixel, size_t first) {
                    const float* weight = &layer.weights[first];
                    for (int i = 0; i < in.c; ++i, weight += numOut) {
                        for (int o = 0; o < numOut; ++o) sum[o] += pixel[i] * weight[o];
                    }
                });
                out.data.insert(out.data.end(), sum.begin(), sum.end());
            }
        }
    }
    return out;
}

Tensor Run(const Network& network, Tensor images, const InputHook& onInput, std::vector<Trace>* traces,
           const SumHook& onSums) {
    Tensor x = std::move(images);
    for (size_t layer = 0; layer < network.size(); ++layer) {
        FitInput(x, network[layer]);
        onInput(layer, x);
        Tensor out = Convolve(x, network[layer]);
        if (onSums) onSums(layer, out);
        if (layer + 1 < network.size()) {
            for (float& value : out.data) value = std::max(value, 0.0f);
        }
        if (traces != nullptr) traces->push_back({std::move(x), out});
        x = network[layer].pooled ? MaxPool(out) : std::move(out);
    }
    return x;
}

std::vector<Gradients> Backward(const Network& network, const std::vector<Trace>& traces, std::vector<float> scores,
                                const GradientHook& onGradient) {
    std::vector<Gradients> gradients(network.size());
    std::vector<float> gradient = std::move(scores);
    for (size_t layer = network.size(); layer-- > 0;) {
        const Tensor& out = traces[layer].output;
        if (network[layer].pooled) gradient = MaxPoolBackward(out, gradient);
        if (layer + 1 < network.size()) {
            for (size_t i = 0; i < gradient.size(); ++i) {
                if (out.data[i] <= 0) gradient[i] = 0;
            }
        }
        const Tensor ofSums{out.n, out.h, out.w, out.c, std::move(gradient)};
        gradients[layer] = ParameterGradients(traces[layer].input, network[layer], ofSums);
        gradient = Convolve(ofSums, Turned(network[layer])).data;
        onGradient(layer, gradient);
        DivideChannels(network[layer], gradient);
    }
    return gradients;
}

double PercentRight(const Tensor& scores, const std::vector<uint8_t>& labels) {
    int numRight = 0;
    for (int image = 0; image < scores.n; ++image) {
        const float* score = &scores.data[static_cast<size_t>(image) * scores.c];
        numRight += std::max_element(score, score + scores.c) - score == labels[image];
    }
    return 100.0 * numRight / scores.n;
}

double Accuracy(const Network& network, const Images& images, const InputHook& onInput) {
    return PercentRight(Run(network, images.pixels, onInput), images.labels);
}

}  // namespace digits
