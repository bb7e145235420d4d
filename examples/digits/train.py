"""Trains the network of the digits example and writes data/images.bin and data/network.bin.

    python3 -m venv venv && venv/bin/pip install -r requirements.txt
    venv/bin/python train.py            (about ten seconds)

The images are the UCI "Optical Recognition of Handwritten Digits" set (E. Alpaydin, C. Kaynak, 1998; CC BY 4.0) in
scikit-learn's copy: 1,797 images of 8x8 pixels with grey levels 0 to 16. A fixed permutation splits them into 1,297
images for training, with which the example also calibrates and retrains, and 500 held-out images that none of the
three sees. The network is small on purpose: 8 bits cost it next to nothing, 4 bits a few points.

    conv1  3x3,  1 ->  8, ReLU                  8x8x8
    conv2  3x3,  8 -> 16, ReLU, 2x2 max pool    4x4x16
    conv3  3x3, 16 -> 16, ReLU, 2x2 max pool    2x2x16
    dense        64 -> 10                       logits

Everything is plain numpy and seeded. The files come out the same on the same machine with the same numpy; another
matrix library may sum in another order and give other, equally good weights. The files beside this script were made
with numpy 2.4 and scikit-learn 1.9.

Both files are little-endian. images.bin:

    char[8]  magic "KESTIMG1"
    uint32   training images, held-out images, height, width
    one image after the other, the training images first:
        uint8 label, uint8 pixels[height][width]      grey levels 0 to 16; the network sees level / 16

network.bin, layers in the order they run:

    char[8]  magic "KESTNET1"
    uint32   layers
    one layer after the other:
        char[16] name, filled up with zero bytes
        uint32   kernel height, kernel width, input channels, output channels, pooled (1: 2x2 max pool follows)
        float32  weights[kernel height][kernel width][input channels][output channels]
        float32  bias[output channels]

Activations are NHWC. A dense layer is a 1x1 kernel over the activations flattened to 1x1. ReLU follows every layer but
the last. Convolutions pad with zeros so that height and width stay.
"""

import pathlib
import struct

import numpy as np
from sklearn.datasets import load_digits

SEED = 1998
HELD_OUT = 500
EPOCHS = 60
BATCH = 32
LEARNING_RATE = 2e-3
WEIGHT_DECAY = 0.02
# name, kernel, input channels, output channels, pooled
LAYERS = [
    ("conv1", 3, 1, 8, False),
    ("conv2", 3, 8, 16, True),
    ("conv3", 3, 16, 16, True),
    ("dense", 1, 64, 10, False),
]


def split_images(rng):
    """Pixels as uint8 (n, 8, 8) and labels, training images first, the last HELD_OUT held out."""
    digits = load_digits()
    order = rng.permutation(len(digits.target))
    return digits.images[order].astype(np.uint8), digits.target[order].astype(np.uint8)


def to_input(pixels):
    return (pixels.astype(np.float32) / 16)[..., None]


def shifted(pixels, rng):
    """Moves each image by -1, 0 or 1 pixel in both directions; zeros come in at the edge."""
    padded = np.pad(pixels, ((0, 0), (1, 1), (1, 1)))
    size = pixels.shape[1]
    moves = rng.integers(0, 3, (len(pixels), 2))
    return np.stack([image[y : y + size, x : x + size] for image, (y, x) in zip(padded, moves)])


def initial_parameters(rng):
    """He initialisation; each layer is [weights (kh, kw, ci, co), bias (co,)]."""
    parameters = []
    for _, kernel, channels_in, channels_out, _ in LAYERS:
        fan_in = kernel * kernel * channels_in
        weights = rng.normal(0, np.sqrt(2 / fan_in), (kernel, kernel, channels_in, channels_out))
        parameters.append([weights.astype(np.float32), np.zeros(channels_out, np.float32)])
    return parameters


def columns(x, kernel):
    """im2col: (n, h, w, c) -> (n, h, w, kernel * kernel * c), the order of the weights."""
    pad = kernel // 2
    padded = np.pad(x, ((0, 0), (pad, pad), (pad, pad), (0, 0)))
    windows = np.lib.stride_tricks.sliding_window_view(padded, (kernel, kernel), axis=(1, 2))
    return windows.transpose(0, 1, 2, 4, 5, 3).reshape(*x.shape[:3], -1)


def forward(x, parameters):
    """Logits, and per layer what `backward` needs: its input's shape, its columns, what came out before pooling."""
    tape = []
    for (_, kernel, channels_in, _, pooled), (weights, bias) in zip(LAYERS, parameters):
        shape = x.shape
        if shape[3] != channels_in:  # dense: flatten
            x = x.reshape(len(x), 1, 1, channels_in)
        cols = columns(x, kernel)
        out = cols @ weights.reshape(-1, weights.shape[3]) + bias
        if weights is not parameters[-1][0]:
            out = np.maximum(out, 0)
        tape.append((shape, cols, out))
        if pooled:
            n, h, w, c = out.shape
            out = out.reshape(n, h // 2, 2, w // 2, 2, c).max(axis=(2, 4))
        x = out
    return x.reshape(len(x), -1), tape


def backward(grad, parameters, tape):
    """Gradients of all parameters for the gradient of the logits (n, classes)."""
    grads = [None] * len(LAYERS)
    grad = grad[:, None, None, :]
    for index in reversed(range(len(LAYERS))):
        _, kernel, _, _, pooled = LAYERS[index]
        weights, _ = parameters[index]
        shape, cols, out = tape[index]
        if pooled:  # to the largest of each 2x2; equal ones share
            n, h, w, c = out.shape
            blocks = out.reshape(n, h // 2, 2, w // 2, 2, c)
            largest = blocks == blocks.max(axis=(2, 4), keepdims=True)
            grad = grad[:, :, None, :, None, :] * largest / largest.sum(axis=(2, 4), keepdims=True)
            grad = grad.reshape(out.shape).astype(np.float32)
        if index < len(LAYERS) - 1:
            grad = grad * (out > 0)
        flat = grad.reshape(-1, grad.shape[3])
        grads[index] = [(cols.reshape(len(flat), -1).T @ flat).reshape(weights.shape), flat.sum(axis=0)]
        # The gradient of a same-padded convolution's input is the convolution with the kernel turned by 180 degrees.
        turned = weights[::-1, ::-1].transpose(0, 1, 3, 2)
        grad = (columns(grad, kernel) @ turned.reshape(-1, turned.shape[3])).reshape(shape)
    return grads


def softmax(logits):
    e = np.exp(logits - logits.max(axis=1, keepdims=True))
    return e / e.sum(axis=1, keepdims=True)


def train(pixels, labels, rng):
    """Adam with decoupled weight decay, a cosine learning rate and images shifted by up to a pixel."""
    parameters = initial_parameters(rng)
    flat = [p for layer in parameters for p in layer]
    first = [np.zeros_like(p) for p in flat]
    second = [np.zeros_like(p) for p in flat]
    steps = EPOCHS * (len(labels) // BATCH)
    step = 0
    for epoch in range(EPOCHS):
        order = rng.permutation(len(labels))
        loss = 0.0
        for start in range(0, len(labels) - BATCH + 1, BATCH):
            rows = order[start : start + BATCH]
            logits, tape = forward(to_input(shifted(pixels[rows], rng)), parameters)
            error = softmax(logits)
            loss -= np.log(error[np.arange(BATCH), labels[rows]] + 1e-12).sum()
            error[np.arange(BATCH), labels[rows]] -= 1
            grads = [g for layer in backward(error / BATCH, parameters, tape) for g in layer]
            rate = LEARNING_RATE * 0.5 * (1 + np.cos(np.pi * step / steps))
            step += 1
            for p, g, m, v in zip(flat, grads, first, second):
                m += 0.1 * (g - m)
                v += 0.001 * (g * g - v)
                update = (m / (1 - 0.9**step)) / (np.sqrt(v / (1 - 0.999**step)) + 1e-8)
                p -= (rate * (update + WEIGHT_DECAY * p)).astype(np.float32)
        print(f"epoch {epoch + 1:2d} of {EPOCHS}: loss {loss / len(labels):.4f}", flush=True)
    return parameters


def accuracy(pixels, labels, parameters):
    logits, _ = forward(to_input(pixels), parameters)
    return 100 * np.mean(logits.argmax(axis=1) == labels)


def write_images(path, pixels, labels):
    with open(path, "wb") as file:
        file.write(b"KESTIMG1")
        file.write(struct.pack("<4I", len(labels) - HELD_OUT, HELD_OUT, *pixels.shape[1:]))
        file.write(np.hstack([labels[:, None], pixels.reshape(len(labels), -1)]).tobytes())


def write_network(path, parameters):
    with open(path, "wb") as file:
        file.write(b"KESTNET1")
        file.write(struct.pack("<I", len(LAYERS)))
        for (name, _, _, _, pooled), (weights, bias) in zip(LAYERS, parameters):
            file.write(struct.pack("<16s5I", name.encode(), *weights.shape, pooled))
            file.write(weights.astype("<f4").tobytes())
            file.write(bias.astype("<f4").tobytes())


def main():
    rng = np.random.default_rng(SEED)
    pixels, labels = split_images(rng)
    parameters = train(pixels[:-HELD_OUT], labels[:-HELD_OUT], rng)
    print(f"training accuracy {accuracy(pixels[:-HELD_OUT], labels[:-HELD_OUT], parameters):.2f} %")
    print(f"held-out accuracy {accuracy(pixels[-HELD_OUT:], labels[-HELD_OUT:], parameters):.2f} %")
    data = pathlib.Path(__file__).parent / "data"
    data.mkdir(exist_ok=True)
    write_images(data / "images.bin", pixels, labels)
    write_network(data / "network.bin", parameters)


if __name__ == "__main__":
    main()
