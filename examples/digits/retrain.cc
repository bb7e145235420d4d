// Each step quantises weights and inputs of a batch (forward kernels of ULQ), and takes the gradients back through the
// rounding as if it were not there (the straight-through estimator). Three things learn:
//
//   weights         with the gradient of their quantised values, none where the grid ends
//   weight scales   x ~ s * round(x / s), so d x / d s = round(x / s) - x / s, or the end of the grid beyond it
//   input ranges    with the gradients of their bounds from UlqDiff; it takes the rounding for that of 8 bits, so that
//                   at fewer bits it is what they clip that moves the bounds

#include "retrain.h"

#include <kest/kernel_frame/views.h>
#include <kest/weight_quant/ulq.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <numeric>
#include <random>
#include <string>
#include <utility>

#include "console.h"

namespace digits {
namespace {

// Chosen by training images alone: each quarter of them judged what the other three had trained. Both fall to 0.
constexpr float kParameterRate = 0.02f;
constexpr float kRangeRate = 1.0f;

/// The input of a layer between learned bounds.
struct InputRange {
    float clipMax;
    float clipMin;
    float goodMax;  // the last good bounds
    float goodMin;
    float scale;  // what the last forward pass used
    int offset;
    std::vector<float> exact;  // the values that it quantised
};

/// The range that the calibrated factors stand for.
InputRange RangeOf(const Factors& factors) {
    InputRange range{};
    KestTfOp::ClipCalculate<util::ThreadPoolDevice, float>()(&factors.inputScale, &factors.inputOffset, &range.clipMax,
                                                             &range.clipMin, factors.numBits);
    KestTfOp::ClipRecord<util::ThreadPoolDevice, float>()(&range.clipMax, &range.clipMin, range.goodMax, range.goodMin);
    return range;
}

/// Forward: fake-quantises the values in place and publishes the factors of the range.
void QuantiseInput(std::vector<float>& values, int numBits, InputRange& range) {
    range.exact = values;
    float usedMax;
    float usedMin;
    const KestTfOp::Input<float> input{range.exact.data(), static_cast<int>(values.size()), &range.clipMax,
                                       &range.clipMin};
    const KestTfOp::Output<float> output{values.data(), &range.scale, &range.offset, &usedMax, &usedMin};
    Check(KestTfOp::UlqFunctor<util::ThreadPoolDevice, float>()(input, output, numBits), "UlqFunctor");
}

/// Backward: makes the gradient of the quantised values that of the exact ones, and takes a step with the bounds.
void LearnRange(std::vector<float>& gradient, int numBits, float rate, InputRange& range) {
    float upper;  // the ends of the grid, beyond which the forward pass clipped
    float lower;
    KestTfOp::ClipCalculate<util::ThreadPoolDevice, float>()(&range.scale, &range.offset, &upper, &lower, numBits);
    const std::vector<float> bounds =
        KestCommon::UlqDiff(range.exact.data(), gradient.data(), static_cast<int>(gradient.size()),
                            std::vector<float>{upper, lower, range.clipMax, range.clipMin});
    for (size_t i = 0; i < gradient.size(); ++i) {
        if (range.exact[i] > upper || range.exact[i] < lower) gradient[i] = 0;
    }
    range.clipMax -= rate * bounds[0];
    range.clipMin -= rate * bounds[1];
    KestTfOp::ClipCheckFunctor<util::ThreadPoolDevice, float>()(&range.clipMax, &range.clipMin, range.goodMax,
                                                                range.goodMin, true);
}

/// The weight scales with which a layer's extremes just fit the grid.
std::vector<float> InitialScales(const Layer& layer, int numBits) {
    std::vector<float> scales(layer.outChannels);
    std::vector<float> largest(layer.outChannels);
    std::vector<float> smallest(layer.outChannels);
    Check(KestTfOp::ScaleArqInit<util::ThreadPoolDevice, float>()(static_cast<int>(layer.weights.size()),
                                                                  layer.weights.data(), largest.data(), smallest.data(),
                                                                  {scales.data(), layer.outChannels, numBits, false}),
          "ScaleArqInit");
    return scales;
}

/// Forward: the layer with its weights fake-quantised.
Layer QuantiseWeights(Layer layer, const std::vector<float>& scales, int numBits) {
    float* weights = layer.weights.data();
    const KestCommon::Input<float> input{weights, static_cast<int>(layer.weights.size()), layer.outChannels};
    Check(KestTfOp::WtsFakeQuantFunctor<util::ThreadPoolDevice, float>()(input, weights, scales.data(), numBits, false),
          "WtsFakeQuantFunctor");
    return layer;
}

/// Backward: takes a step with weights, biases and weight scales.
void LearnWeights(const Gradients& gradients, int numBits, float rate, Layer& layer, std::vector<float>& scales) {
    const float high = static_cast<float>((1 << (numBits - 1)) - 1);
    const float low = -high - 1;
    std::vector<float> scaleGradients(scales.size());
    for (size_t i = 0; i < layer.weights.size(); ++i) {
        const size_t channel = i % scales.size();
        const float exact = layer.weights[i] / scales[channel];
        const float code = std::round(exact);
        if (code < low || code > high) {
            scaleGradients[channel] += gradients.weights[i] * (code < low ? low : high);
        } else {
            scaleGradients[channel] += gradients.weights[i] * (code - exact);
            // A weight of exactly 0 is one that pruning or a mask has taken out: it stays out.
            if (layer.weights[i] != 0) layer.weights[i] -= rate * gradients.weights[i];
        }
    }
    // A scale collects the gradients of all its weights, times codes up to the end of the grid: it takes smaller steps.
    const size_t numWeights = layer.weights.size() / scales.size();
    const float scaleRate = rate / std::sqrt(static_cast<float>(numWeights) * high);
    for (size_t channel = 0; channel < scales.size(); ++channel) {
        scales[channel] -= scaleRate * scaleGradients[channel];
        layer.bias[channel] -= rate * gradients.bias[channel];
    }
}

/// The gradient of the mean cross-entropy of softmax(scores) over a batch: (probability - is the label) / images.
std::vector<float> LossGradient(const Tensor& scores, const std::vector<uint8_t>& labels) {
    std::vector<float> gradient(scores.data.size());
    const size_t numClasses = scores.c;
    for (size_t image = 0; image < labels.size(); ++image) {
        const float* score = &scores.data[image * numClasses];
        float* out = &gradient[image * numClasses];
        const float largest = *std::max_element(score, score + numClasses);
        std::transform(score, score + numClasses, out, [&](float value) { return std::exp(value - largest); });
        const float sum = std::accumulate(out, out + numClasses, 0.0f);
        for (size_t k = 0; k < numClasses; ++k) {
            out[k] = (out[k] / sum - static_cast<float>(k == labels[image])) / static_cast<float>(labels.size());
        }
    }
    return gradient;
}

/// The images in an order that is new each time and the same in each run.
Images Shuffled(const Images& images, std::mt19937& random) {
    Images shuffled = images;
    const size_t size = images.pixels.data.size() / images.labels.size();
    for (size_t left = images.labels.size(); left > 1; --left) {
        const size_t chosen = random() % left;  // not std::shuffle: its order is the standard library's own
        std::swap(shuffled.labels[left - 1], shuffled.labels[chosen]);
        float* pixels = shuffled.pixels.data.data();
        std::swap_ranges(pixels + (left - 1) * size, pixels + left * size, pixels + chosen * size);
    }
    return shuffled;
}

/// One step of everything on a batch; `rate` scales the rates of learning.
void Step(const Tensor& images, const std::vector<uint8_t>& labels, float rate, Retrained& learned,
          std::vector<InputRange>& ranges) {
    const int numBits = learned.factors.front().numBits;
    Network quantised;
    for (size_t layer = 0; layer < ranges.size(); ++layer) {
        quantised.push_back(QuantiseWeights(learned.network[layer], learned.factors[layer].weightScales, numBits));
    }
    std::vector<Trace> traces;
    const auto quantiseInput = [&](size_t layer, Tensor& input) { QuantiseInput(input.data, numBits, ranges[layer]); };
    const Tensor scores = Run(quantised, images, quantiseInput, &traces);

    const auto learnRange = [&](size_t layer, std::vector<float>& gradient) {
        LearnRange(gradient, numBits, rate * kRangeRate, ranges[layer]);
    };
    const std::vector<Gradients> gradients = Backward(quantised, traces, LossGradient(scores, labels), learnRange);
    for (size_t layer = 0; layer < ranges.size(); ++layer) {
        LearnWeights(gradients[layer], numBits, rate * kParameterRate, learned.network[layer],
                     learned.factors[layer].weightScales);
    }
}

}  // namespace

Retrained Retrain(const Network& network, const std::vector<Factors>& calibrated, const Images& training,
                  int numEpochs) {
    const int numBits = calibrated.front().numBits;
    Retrained learned{network, calibrated};
    std::vector<InputRange> ranges;
    for (size_t layer = 0; layer < network.size(); ++layer) {
        ranges.push_back(RangeOf(calibrated[layer]));
        learned.factors[layer].clusters.clear();
        learned.factors[layer].weightScales = InitialScales(network[layer], numBits);
        learned.factors[layer].weightOffsets.assign(network[layer].outChannels, 0);
    }

    const int batchesPerEpoch = training.pixels.n / kBatchSize;
    float counter = 0;  // of batches; a float because a framework's variables are
    std::mt19937 random(4);
    Progress progress;
    for (int epoch = 0; epoch < numEpochs; ++epoch) {
        progress.Show("retraining: epoch " + std::to_string(epoch + 1) + " of " + std::to_string(numEpochs));
        const Images images = Shuffled(training, random);
        for (int batch = 0; batch < batchesPerEpoch; ++batch) {
            int numDone;
            KestTfOp::GetBatchNum<util::ThreadPoolDevice, float>()(counter, numDone);
            const float left = 1 - static_cast<float>(numDone) / static_cast<float>(numEpochs * batchesPerEpoch);
            const auto labels = images.labels.begin() + batch * kBatchSize;
            Step(Slice(images.pixels, batch * kBatchSize, kBatchSize), {labels, labels + kBatchSize}, left, learned,
                 ranges);
            KestTfOp::UpdateBatchNum<util::ThreadPoolDevice, float>()(counter);
        }
    }

    for (size_t layer = 0; layer < network.size(); ++layer) {
        std::vector<float> noValues;  // the last step moved the bounds: this publishes their factors
        QuantiseInput(noValues, numBits, ranges[layer]);
        learned.factors[layer].inputScale = ranges[layer].scale;
        learned.factors[layer].inputOffset = ranges[layer].offset;
    }
    return learned;
}

}  // namespace digits
