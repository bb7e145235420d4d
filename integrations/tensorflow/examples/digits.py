"""Quantises a Keras model for handwritten digits after training, and retrains it for 4 bits.

    scripts/demo-tensorflow         builds what this program needs and runs it; options go to the program

    1. train      a small convolutional model with batch normalisation, in plain Keras
    2. calibrate  a scale and an offset for the input of every layer, from batches of training images
    3. quantise   ARQ finds a scale for each output channel of every kernel; batch normalisation is folded in
    4. store      all factors go into a record file, a text that deployment tools and people read
    5. deploy     from the record file: codes in, sums of integers, real values out, as a device computes it
    6. retrain    ULQ learns the clip ranges of activations, and weights learn their steps, for fewer bits
    7. prune      the same with 2 of every 4 weights taken out

Everything is chosen by the training images; the 500 held-out ones are for the table of accuracies alone. Figures show
what calibration chose for each layer and what that costs each of its channels.
"""

import argparse
import dataclasses
import pathlib
import re

import kest
import kest.plot
import kest_tensorflow
import numpy as np
import tensorflow as tf
from matplotlib.figure import Figure
from rich.console import Console
from rich.progress import Progress
from rich.table import Table

IMAGES = pathlib.Path(__file__).parents[3] / "examples/digits/data/images.bin"
CONVOLUTIONS = {"conv1": 8, "conv2": 16, "conv3": 16}  # output channels
POOLED = "conv2", "conv3"
NAMES = [*CONVOLUTIONS, "dense"]
CALIBRATORS = {
    "ifmr": kest_tensorflow.IfmrCalibrator,
    "hfmg": kest_tensorflow.HfmgCalibrator,
    "arq": kest_tensorflow.ActivationArqCalibrator,
}
SEED = 1998
BATCH = 32
CALIBRATION_IMAGES = 512
BLUE, RED, BLACK = "#4477aa", "#cc3311", "#222222"


@dataclasses.dataclass(frozen=True)
class Layer:
    """A convolution or a dense layer without batch normalisation, and the factors of its quantised form."""

    name: str
    num_bits: int
    kernel: np.ndarray  # (height, width, inputs, outputs) or (inputs, outputs)
    bias: np.ndarray
    steps: np.ndarray  # of the kernel, one an output channel: a weight is step * code
    scale: np.float32  # of the input: a value is scale * (code - offset)
    offset: int
    shifts: np.ndarray | int = 0  # by which sums are shifted right, one an output channel

    def clip_range(self):
        """The smallest and the largest input value that has a code."""
        return kest.ActivationFactors(self.scale, self.offset).clip_range(self.num_bits)


def read_images(path):
    """Two pairs of images, float32 (n, 8, 8, 1) from 0 to 1, and labels: for training and held out."""
    data = np.fromfile(path, np.uint8)
    num_training, num_held_out, height, width = data[8:24].view("<u4")
    rows = data[24:].reshape(num_training + num_held_out, 1 + height * width)
    images = rows[:, 1:].reshape(-1, height, width, 1).astype(np.float32) / 16
    return (images[:num_training], rows[:num_training, 0]), (images[num_training:], rows[num_training:, 0])


def with_shifted(images, labels):
    """Images and labels with copies that are shifted by a pixel in all eight directions."""
    padded = np.pad(images, ((0, 0), (1, 1), (1, 1), (0, 0)))
    height, width = images.shape[1:3]
    copies = [padded[:, y : y + height, x : x + width] for y in range(3) for x in range(3)]
    return np.concatenate(copies), np.tile(labels, len(copies))


class Bar(tf.keras.callbacks.Callback):
    """Shows the epochs of a training as a progress bar."""

    def __init__(self, progress, title, num_epochs):
        super().__init__()
        self.progress = progress
        self.task = progress.add_task(title, total=num_epochs)

    def on_epoch_end(self, epoch, logs=None):
        self.progress.advance(self.task)


def fit(model, training, num_epochs, rate, bar):
    """Trains with Adam, whose rate falls to 0."""
    images, labels = training
    num_steps = num_epochs * -(-len(labels) // BATCH)
    model.compile(
        tf.keras.optimizers.Adam(tf.keras.optimizers.schedules.CosineDecay(rate, num_steps)),
        tf.keras.losses.SparseCategoricalCrossentropy(from_logits=True),
    )
    model.fit(images, labels, batch_size=BATCH, epochs=num_epochs, verbose=0, callbacks=[bar])


def train(training, num_epochs, bar):
    """The float model."""
    layers = [tf.keras.Input((8, 8, 1))]
    for name, channels in CONVOLUTIONS.items():
        layers += [
            tf.keras.layers.Conv2D(channels, 3, padding="same", use_bias=False, name=name),
            tf.keras.layers.BatchNormalization(name=f"{name}_norm"),
            tf.keras.layers.ReLU(),
        ]
        if name in POOLED:
            layers.append(tf.keras.layers.MaxPooling2D())
    model = tf.keras.Sequential([*layers, tf.keras.layers.Flatten(), tf.keras.layers.Dense(10, name="dense")])
    fit(model, training, num_epochs, 3e-3, bar)
    return model


def graph(function):
    """The TensorFlow graph of a function of images."""
    return tf.function(function).get_concrete_function(tf.TensorSpec([None, 8, 8, 1]))


def batches(images):
    return tf.data.Dataset.from_tensor_slices(images).batch(BATCH)


def inputs_of_layers(model):
    """A model from images to what enters each layer that is to be quantised."""
    return tf.keras.Model(model.inputs[0], [model.get_layer(name).input for name in NAMES])


def calibrate(model, images, num_bits, method):
    """A scale and an offset for the input of each layer. The calibrators see batches within a graph."""
    calibrators = [CALIBRATORS[method](num_bits=num_bits) for _ in NAMES]
    inputs = inputs_of_layers(model)

    @graph
    def add(batch):
        for calibrator, x in zip(calibrators, inputs(batch)):
            calibrator.add(x)

    for batch in batches(images):
        add(batch)
    return [calibrator.factors() for calibrator in calibrators]


def fold(kernel, steps, norm):
    """Kernel, bias and steps of a convolution that does what follows it too, the batch normalisation."""
    gain = norm.gamma / tf.sqrt(norm.moving_variance + norm.epsilon)
    steps = kest_tensorflow.fuse_batch_norm(steps, norm.gamma, norm.moving_variance, norm.epsilon)
    return kernel * gain, norm.beta - norm.moving_mean * gain, steps


def quantise(model, images, num_bits, method):
    """The layers of a Keras model with the factors that calibration and ARQ find for them."""
    layers = []
    for name, (scale, offset) in zip(NAMES, calibrate(model, images, num_bits, method)):
        keras_layer = model.get_layer(name)
        kernel, bias = tf.convert_to_tensor(keras_layer.kernel), keras_layer.bias
        _, steps, _ = kest_tensorflow.arq_weights(kernel, num_bits)
        if name in CONVOLUTIONS:
            kernel, bias, steps = fold(kernel, steps, model.get_layer(f"{name}_norm"))
        factors = (array.numpy() for array in (kernel, bias, steps, scale, offset))
        layers.append(Layer(name, num_bits, *factors))
    return layers


def convolve(x, kernel):
    """A convolution or, with a matrix, a dense layer, without its bias."""
    if len(kernel.shape) == 4:
        return tf.nn.conv2d(x, kernel, 1, "SAME")
    return tf.matmul(tf.reshape(x, [-1, kernel.shape[0]]), kernel)


def activate(x, layer):
    """What lies between a layer and the next; the last one's scores stay as they are."""
    if layer.name == NAMES[-1]:
        return x
    x = tf.nn.relu(x)
    return tf.nn.max_pool2d(x, 2, 2, "VALID") if layer.name in POOLED else x


def in_float(x, layer):
    """The layer without quantisation."""
    return convolve(x, layer.kernel) + layer.bias


def fake_quantised(x, layer):
    """The layer in real numbers that lie on the grids of their codes."""
    codes = kest_tensorflow.quantise(x, 1 / layer.scale, float(layer.offset), layer.num_bits)
    kernel = kest_tensorflow.fake_quantise_weights(layer.kernel, layer.steps, layer.num_bits)
    return convolve(kest_tensorflow.anti_quantise(codes, layer.scale), kernel) + layer.bias


def weight_codes(layer):
    """The kernel in signed bytes; within a graph, a constant of it."""
    with tf.init_scope():
        offsets = np.zeros(len(layer.steps), np.int32)
        return kest_tensorflow.arq_codes(layer.kernel, layer.steps, offsets, layer.num_bits)


def accumulate(x, layer):
    """The sums of a device's integers. Whole numbers below 2^24 as they are here, floats hold them exactly."""
    codes = kest_tensorflow.quantise(x, 1 / layer.scale, float(layer.offset), layer.num_bits)
    kernel = kest_tensorflow.anti_quantise_weights(weight_codes(layer), np.int8(0))
    return convolve(codes, kernel) + tf.round(layer.bias / (layer.scale * layer.steps))


def dequantise(sums, layer):
    """The real values that sums stand for."""
    words = kest_tensorflow.dequantise_words(layer.scale * layer.steps, layer.shifts)
    return kest_tensorflow.dequantise(sums, words)


def deployed(x, layer):
    """The layer as a device computes it."""
    return dequantise(accumulate(x, layer), layer)


def classifier(layers, compute):
    """A graph from images to probabilities; compute(x, layer) is one of the three above."""

    @graph
    def probabilities(x):
        for layer in layers:
            x = activate(compute(x, layer), layer)
        return kest_tensorflow.fast_softmax(x)

    return probabilities


def search_shifts(layers, images):
    """By how many bits each channel's sums are to be shifted to fit a device's 16 bits."""
    searchers = [kest_tensorflow.ShiftSearcher() for _ in layers]

    @graph
    def add(x):
        for layer, searcher in zip(layers, searchers):
            sums = accumulate(x, layer)
            searcher.add(sums, tf.ones_like(layer.steps))
            x = activate(dequantise(sums, layer), layer)

    for batch in batches(images):
        add(batch)
    return [searcher.shift_bits() for searcher in searchers]


def store(layers, images, record_file):
    """Writes the factors of all layers to a new record file."""
    record_file.write_text("")  # updates change a file
    for layer, shifts in zip(layers, search_shifts(layers, images)):
        kest_tensorflow.record_data(record_file, layer.name, layer.scale, layer.offset, f"INT{layer.num_bits}")
        kest_tensorflow.record_weights(record_file, layer.name, layer.steps, np.zeros(len(layer.steps), np.int32))
        kest_tensorflow.record_shift_bits(record_file, layer.name, shifts)


def load(layers, record_file):
    """The layers with the factors that the record file has for them."""
    records = kest.record.read(record_file)
    return [
        dataclasses.replace(
            layer,
            num_bits=int(records[layer.name].dst_type.removeprefix("INT")),
            scale=records[layer.name].scale_d,
            offset=records[layer.name].offset_d,
            steps=records[layer.name].scale_w,
            shifts=records[layer.name].shift_bit,
        )
        for layer in layers
    ]


class Retrained(tf.keras.layers.Layer):
    """A layer that learns the range of its input, the steps of its kernel, the kernel and the bias."""

    def __init__(self, layer):
        super().__init__(name=layer.name)
        self.layer = layer
        low, high = layer.clip_range()
        self.clip_max = self.variable("clip_max", high)
        self.clip_min = self.variable("clip_min", low)
        self.kernel = self.variable("kernel", layer.kernel)
        self.steps = self.variable("steps", layer.steps)
        self.bias = self.variable("bias", layer.bias)
        self.mask = np.float32(layer.kernel != 0)  # what is pruned stays so

    def variable(self, name, value):
        return self.add_weight(name=name, shape=np.shape(value), initializer=tf.keras.initializers.Constant(value))

    def call(self, x):
        x, _, _ = kest_tensorflow.ulq(x, self.clip_max, self.clip_min, self.layer.num_bits)
        kernel = kest_tensorflow.fake_quantise_weights(self.kernel * self.mask, self.steps, self.layer.num_bits)
        return activate(convolve(x, kernel) + self.bias, self.layer)

    def learned(self):
        """The layer with what it has learned."""
        _, scale, offset = kest_tensorflow.ulq([0.0], self.clip_max, self.clip_min, self.layer.num_bits)
        steps, _ = kest_tensorflow.step_scales(self.steps)
        return dataclasses.replace(
            self.layer,
            kernel=self.kernel.numpy() * self.mask,
            bias=self.bias.numpy(),
            scale=scale.numpy(),
            offset=offset.numpy(),
            steps=steps.numpy(),
        )


def retrain(layers, training, num_epochs, bar):
    """The layers after some epochs of training with the grids in place."""
    model = tf.keras.Sequential([Retrained(layer) for layer in layers])
    fit(model, training, num_epochs, 2e-3, bar)
    return [layer.learned() for layer in model.layers]


def sparse(model):
    """A copy in which the smaller 2 of every 4 weights along the input channels are 0; conv1 has one and keeps it."""
    copy = tf.keras.models.clone_model(model)
    copy.set_weights(model.get_weights())
    for name in NAMES:
        kernel = copy.get_layer(name).kernel
        kernel.assign(kernel * kest_tensorflow.n_of_m_mask(kernel, keep=2, group_size=4))
    return copy


def channel_errors(x, layer):
    """The signal-to-noise ratio in dB of each output channel, deployed against float, for exact inputs."""
    report = kest.report.compare(in_float(x, layer), deployed(x, layer), channel_axis=-1)
    return [errors.snr_db for errors in report.channels]


def draw_input(axes, x, layer, learned):
    """The histogram of what enters a layer, the clip range of its calibration and the one that it has learned."""
    calibrator = kest.hfmg.Calibrator(num_bins=128)
    calibrator.add(x)
    kest.plot.histogram(calibrator.histogram(), layer.clip_range(), axes=axes)
    low, high = learned.clip_range()
    for bound, label in (low, f"learned range: {low:.4g} to {high:.4g}"), (high, None):
        axes.axvline(bound, color=BLACK, linestyle=":", linewidth=1.5, label=label)
    axes.set_title("What enters the layer")
    axes.set_xlabel("input value")


def draw_errors(axes, x, layer, fine):
    """The error of each output channel, and for comparison that of the layer with more bits."""
    ratios = channel_errors(x, layer)
    worst = int(np.argmin(ratios))
    channels = np.arange(len(ratios))
    axes.bar(channels, ratios, color=BLUE, label=f"{layer.num_bits} bits")
    axes.bar(worst, ratios[worst], color=RED, label=f"worst: channel {worst}, {ratios[worst]:.1f} dB")
    axes.plot(channels, channel_errors(x, fine), "_", color=BLACK, ms=12, mew=2, label=f"{fine.num_bits} bits")
    axes.set_title("Its output channels, deployed against float")
    axes.set_xlabel("output channel")
    axes.set_xticks(channels)
    axes.set_ylabel("signal to noise (dB)")


def draw(x, layer, fine, learned):
    """The figure of a layer."""
    figure = Figure(figsize=(10, 4.4), dpi=150)
    figure.set_layout_engine("constrained", w_pad=0.12, h_pad=0.08)
    figure.suptitle(f"{layer.name} at {layer.num_bits} bits", fontweight="bold")
    left, right = figure.subplots(1, 2)
    draw_input(left, x, layer, learned)
    draw_errors(right, x, layer, fine)
    for axes in left, right:
        axes.spines[["top", "right"]].set_visible(False)
        axes.legend(loc="upper center", bbox_to_anchor=(0.5, -0.14), ncols=2, frameon=False)
    return figure


def make_networks(options, model, training, calibration, progress):
    """The quantised networks by name."""
    networks = {"8 bits": quantise(model, calibration, 8, options.calibration)}
    for name, float_model in (f"{options.bits} bits", model), (f"{options.bits} bits, 2:4 sparse", sparse(model)):
        networks[name] = quantise(float_model, calibration, options.bits, options.calibration)
        bar = Bar(progress, f"retraining: {name}", options.retrain_epochs)
        networks[f"{name}, retrained"] = retrain(networks[name], training, options.retrain_epochs, bar)
    return networks


def run(options, console):
    """Makes all networks, their record files and the figures; returns the networks by name, as the files have them."""
    tf.keras.utils.set_random_seed(SEED)
    (images, labels), _ = read_images(IMAGES)
    training, calibration = with_shifted(images, labels), images[:CALIBRATION_IMAGES]
    with Progress(console=console) as progress:
        model = train(training, options.epochs, Bar(progress, "training", options.epochs))
        networks = make_networks(options, model, training, calibration, progress)

    options.output.mkdir(parents=True, exist_ok=True)
    for name, layers in networks.items():
        record_file = options.output / f"{re.sub('[ ,:]+', '-', name)}.record"
        store(layers, calibration, record_file)
        networks[name] = load(layers, record_file)

    drawn = [networks[name] for name in (f"{options.bits} bits", "8 bits", f"{options.bits} bits, retrained")]
    for x, *layers in zip(inputs_of_layers(model)(calibration), *drawn):
        draw(x.numpy(), *layers).savefig(options.output / f"{layers[0].name}.png")
    return networks


def accuracies(networks):
    """On the held-out images, in per cent: of each network in float, quantised and deployed."""
    _, (images, labels) = read_images(IMAGES)

    def accuracy(layers, compute):
        return 100 * np.mean(np.argmax(classifier(layers, compute)(tf.constant(images)), axis=1) == labels)

    ways = in_float, fake_quantised, deployed
    return {name: [accuracy(layers, compute) for compute in ways] for name, layers in networks.items()}


def table_of(found):
    """The table of accuracies."""
    table = Table("network", title="Accuracy on held-out images", caption="deployed: in integers, as a device computes")
    for way in "float", "quantised", "deployed":
        table.add_column(way, justify="right")
    for name, row in found.items():
        table.add_row(name, *(f"{value:.2f} %" for value in row))
    return table


def parse(arguments=None):
    """The options of the command line."""
    parser = argparse.ArgumentParser(description="Quantises and retrains a Keras model for handwritten digits.")
    parser.add_argument("--calibration", choices=CALIBRATORS, default="ifmr", help="of activations (default: ifmr)")
    parser.add_argument("--bits", type=int, choices=range(2, 9), default=4, help="to retrain for (default: 4)")
    parser.add_argument("--epochs", type=int, default=6, help="of the float training (default: 6)")
    parser.add_argument("--retrain-epochs", type=int, default=2, help="of each retraining (default: 2)")
    output = pathlib.Path("build/digits-tensorflow")
    parser.add_argument("--output", type=pathlib.Path, default=output, help=f"a directory (default: {output})")
    return parser.parse_args(arguments)


def main():
    console = Console()
    options = parse()
    console.print(table_of(accuracies(run(options, console))))
    console.print(f"record files and figures: {options.output}")


if __name__ == "__main__":
    main()
