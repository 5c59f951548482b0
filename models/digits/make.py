"""Makes the sample model `digits` out of its descriptions, model.json and digits.prototxt:
images, trained weights, the other forms of the model, reference outputs.

    python make.py            remake all of it in this folder, then check it
    python make.py --check    only check the files that are here

Needs the packages of requirements.txt. Building and testing the library needs none of this.
"""

import argparse
import json
import os
import re
import sys
from pathlib import Path

os.environ.setdefault("TF_CPP_MIN_LOG_LEVEL", "2")  # read when tensorflow is imported

import cv2
import numpy as np
import tensorflow as tf
from google.protobuf import text_format
from sklearn.datasets import load_digits
from sklearn.model_selection import train_test_split
from tensorflow.lite.tools import flatbuffer_utils

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent))
import forms

STEM, OUTPUTS = HERE / "digits", ["prob", "features"]
SEED = 20
UNSEEN = 600  # source digits kept out of training; each gives one unseen image
COMMITTED = 160  # the first so many unseen images are kept as PNG files
ENLARGE = 4  # pixels of a PNG file per pixel of the image, each way
WITH_FEATURES = 4  # images whose features are in reference.json
VARIANTS, EPOCHS, BATCH = 40, 16, 128

# Mean and scale are about the training images' mean and 1/deviation, in whole numbers and in
# multiples of 1/1024: so the prepared image is exact in float32 and every caller hands the network
# the same bits. They differ from channel to channel, or a wrong order could go unnoticed.
IMAGE = json.loads((HERE / "model.json").read_text())["image"]
HEIGHT, WIDTH, MEAN, SCALE = (IMAGE[key] for key in ("height", "width", "mean", "scale"))
FEATURES_SHAPE = (24, 8, 6)


# ---- images ------------------------------------------------------------------------------------


def draw_mask(digit, rng):
    """The digit (8 x 8, 0..1) enlarged, tilted a little and put somewhere on the canvas."""
    height, width = rng.uniform(23, 29), rng.uniform(17, 22)
    scale = np.array([width / 8, height / 8])
    tilt, slant = rng.uniform(-0.12, 0.12), rng.uniform(-0.12, 0.12)
    turn = np.array([[np.cos(tilt), -np.sin(tilt) + slant], [np.sin(tilt), np.cos(tilt)]])
    matrix = turn * scale
    centre = np.array([WIDTH, HEIGHT]) / 2 - 0.5 + rng.uniform(-1, 1, 2) * [2.0, 2.5]
    offset = centre - matrix @ [3.5, 3.5]
    mask = cv2.warpAffine(digit, np.column_stack([matrix, offset]), (WIDTH, HEIGHT),
                          flags=cv2.INTER_CUBIC)
    return np.clip((mask - 0.4) / 0.4, 0, 1)[..., None]  # steeper edges, as a pen draws them


def draw_image(digit, distractor, rng):
    """The digit in red ink over a fainter other digit in blue ink, on paper; RGB, 8 bits."""
    paper = np.array([236, 228, 208]) + rng.uniform(-12, 12) + rng.uniform(-5, 5, 3)
    slope_y, slope_x = rng.uniform(-10, 10, 2)
    light = (slope_y * np.linspace(-1, 1, HEIGHT)[:, None]
             + slope_x * np.linspace(-1, 1, WIDTH)[None, :])
    image = (paper + light[..., None]) / 255
    blue = np.array([0.22, 0.36, 0.80]) + rng.uniform(-0.07, 0.07, 3)
    red = np.array([0.78, 0.20, 0.17]) + rng.uniform(-0.07, 0.07, 3)
    image *= 1 - draw_mask(distractor, rng) * (1 - blue) * rng.uniform(0.4, 0.65)
    image *= 1 - draw_mask(digit, rng) * (1 - red) * rng.uniform(0.75, 1.0)
    image = image * 255 + rng.normal(0, 4, image.shape)
    return np.clip(np.rint(image), 0, 255).astype(np.uint8)


def draw_images(digits, labels, variants, rng):
    """`variants` images of every digit. The distractors are of the same digits, other labels."""
    images = []
    for digit, label in zip(digits, labels):
        others = np.flatnonzero(labels != label)
        for _ in range(variants):
            images.append(draw_image(digit, digits[rng.choice(others)], rng))
    return np.stack(images), np.repeat(labels, variants)


def split_digits():
    """(digits, labels) for training, and the same for the unseen images."""
    source = load_digits()
    digits = (source.images / 16).astype(np.float32)
    seen, unseen, seen_labels, unseen_labels = train_test_split(
        digits, source.target, test_size=UNSEEN, stratify=source.target, random_state=SEED)
    return (seen, seen_labels), (unseen, unseen_labels)


def prepare(images):
    """What the caller does before the network sees an image, and the turn to N, C, H, W."""
    return ((images - MEAN) * SCALE).transpose(0, 3, 1, 2)


def write_images(images, labels):
    folder = HERE / "images"
    folder.mkdir(exist_ok=True)
    for old in folder.glob("*.png"):
        old.unlink()
    rows = ["file,label"]
    for i, (image, label) in enumerate(zip(images, labels)):
        enlarged = image.repeat(ENLARGE, 0).repeat(ENLARGE, 1)
        cv2.imwrite(str(folder / f"{i:04}.png"), enlarged[..., ::-1],
                    [cv2.IMWRITE_PNG_COMPRESSION, 9])
        rows.append(f"{i:04}.png,{label}")
    (folder / "truth.csv").write_text("\n".join(rows) + "\n")


def read_images():
    """The committed images at the network's size, with names and labels."""
    rows = (HERE / "images/truth.csv").read_text().split()[1:]
    names, labels = zip(*(row.split(",") for row in rows))
    images = []
    for name in names:
        enlarged = cv2.imread(str(HERE / "images" / name))[..., ::-1]
        image = enlarged[::ENLARGE, ::ENLARGE]
        for how in (cv2.INTER_LINEAR, cv2.INTER_AREA):
            assert np.array_equal(cv2.resize(enlarged, (WIDTH, HEIGHT), interpolation=how), image)
        images.append(image)
    return names, np.stack(images), np.array(labels, int)


# ---- network -----------------------------------------------------------------------------------

NETWORK = text_format.Parse((HERE / "digits.prototxt").read_text(), forms.CaffeNet())
LAYERS = NETWORK.layer[1:]  # without the input


# ---- training ----------------------------------------------------------------------------------


def train(images, labels):
    tf.keras.utils.set_random_seed(SEED)
    tf.config.experimental.enable_op_determinism()
    keras = tf.keras.layers
    model = tf.keras.Sequential([tf.keras.Input((HEIGHT, WIDTH, 3))])
    for layer in LAYERS:
        conv = layer.convolution_param
        if layer.type == "Convolution":
            window = {"kernel_size": conv.kernel_size[0], "strides": conv.stride[0]}
            model.add(keras.ZeroPadding2D(conv.pad[0]))
            if conv.group > 1:  # then as many groups as channels
                model.add(keras.DepthwiseConv2D(**window, name=layer.name))
            else:
                model.add(keras.Conv2D(conv.num_output, **window, name=layer.name))
        elif layer.type == "InnerProduct":
            # Flatten would fix the batch size in the TensorFlow Lite model.
            inputs = int(np.prod(FEATURES_SHAPE))
            model.add(keras.Lambda(lambda x: tf.reshape(x, [-1, inputs])))
            model.add(keras.Dense(layer.inner_product_param.num_output, name=layer.name))
        else:
            model.add(getattr(keras, layer.type)(name=layer.name))
    rate = tf.keras.optimizers.schedules.CosineDecay(2e-3, EPOCHS * len(images) // BATCH)
    # Smoothed labels keep the probabilities away from 0 and 1, where a wrong score hardly shows.
    model.compile(tf.keras.optimizers.AdamW(rate, weight_decay=0.01),
                  tf.keras.losses.CategoricalCrossentropy(label_smoothing=0.1))
    x = prepare(images).transpose(0, 2, 3, 1).astype(np.float32)
    model.fit(x, np.eye(10)[labels], BATCH, EPOCHS, verbose=2)
    return model


def trained_weights(model):
    """{layer: (weights, bias)} in Caffe's layout, which everything below uses: convolutions are
    (out, in / group, height, width), inner products (out, in) over inputs in C, H, W order."""
    weights = {}
    for layer in LAYERS:
        if layer.type == "Convolution":
            w, b = model.get_layer(layer.name).get_weights()
            w = w.transpose((2, 3, 0, 1) if layer.convolution_param.group > 1 else (3, 2, 0, 1))
        elif layer.type == "InnerProduct":
            w, b = model.get_layer(layer.name).get_weights()
            channels, height, width = FEATURES_SHAPE
            w = w.reshape(height, width, channels, -1).transpose(3, 2, 0, 1).reshape(len(b), -1)
        else:
            continue
        weights[layer.name] = (w, b)
    return weights


# ---- forms of the model ------------------------------------------------------------------------


def write_tflite(model):
    shape = tf.TensorSpec([1, HEIGHT, WIDTH, 3], tf.float32, name="data")
    network = tf.function(lambda data: model(data), input_signature=[shape])
    converter = tf.lite.TFLiteConverter.from_concrete_functions(
        [network.get_concrete_function()], network)
    flat = flatbuffer_utils.convert_bytearray_to_object(bytearray(converter.convert()))
    graph = flat.subgraphs[0]
    graph.tensors[graph.outputs[0]].name = b"prob"  # the converter calls it Identity
    for metadata in flat.metadata:
        if metadata.name == b"CONVERSION_METADATA":  # differs from one run to the next
            flat.buffers[metadata.buffer].data = None
    flat.metadata = [m for m in flat.metadata if m.name != b"CONVERSION_METADATA"]
    (HERE / "digits.tflite").write_bytes(flatbuffer_utils.convert_object_to_bytearray(flat))


# ---- reference outputs -------------------------------------------------------------------------


def write_reference(weights):
    names, images, _ = read_images()
    prob, features = forms.reference_outputs(NETWORK, weights, prepare(images), OUTPUTS)

    def rows(array):
        return [[float(f"{value:.9g}") for value in row] for row in array.reshape(len(array), -1)]

    text = json.dumps({
        "images": [f"images/{name}" for name in names],
        "prob": rows(prob),
        "features": {"shape": FEATURES_SHAPE, "values": rows(features[:WITH_FEATURES])},
    }, indent=1)
    # An image to a line, so that a change is seen where it is.
    text = re.sub(r"\[[-+.e\d\s,]+\]", lambda found: re.sub(r"\s", "", found[0]), text)
    (HERE / "reference.json").write_text(text + "\n")


# ---- checks ------------------------------------------------------------------------------------


def check_engines(weights):
    """The stored reference, and every form, run by its engine, against a new one."""
    _, images, labels = read_images()
    x = prepare(images)
    reference = forms.reference_outputs(NETWORK, weights, x, OUTPUTS)
    stored = json.loads((HERE / "reference.json").read_text())
    assert np.allclose(stored["prob"], reference[0], rtol=1e-8, atol=0)
    features = np.reshape(stored["features"]["values"], (WITH_FEATURES, *FEATURES_SHAPE))
    assert np.allclose(features, reference[1][:WITH_FEATURES], rtol=1e-8, atol=1e-12)
    forms.check_engines(STEM, NETWORK, x, labels, OUTPUTS, reference, tf.lite.Interpreter)


def check_accuracy(weights, unseen, unseen_labels):
    """How often the answer is right, with the input as it should be and with common mistakes."""
    def each(images, change):
        return prepare(np.stack([change(image) for image in images]))

    inputs = {
        "as model.json says": prepare,
        "channels in BGR order": lambda images: prepare(images[..., ::-1]),
        "transposed, then resized": lambda images: each(
            images, lambda image: cv2.resize(image.transpose(1, 0, 2), (WIDTH, HEIGHT))),
        "resized to 32 wide, 24 high": lambda images: each(
            images, lambda image: cv2.resize(image, (HEIGHT, WIDTH)).reshape(image.shape)),
        "H, W, C where the network takes C, H, W": lambda images: (
            prepare(images).transpose(0, 2, 3, 1).reshape(-1, 3, HEIGHT, WIDTH)),
        "no mean, no scale": lambda images: images.transpose(0, 3, 1, 2).astype(float),
    }
    _, committed, labels = read_images()
    print(f"\n{'right answers':42} {'unseen':>8} {'committed':>9}")
    for name, how in inputs.items():
        shares = [np.mean(forms.reference_outputs(NETWORK, weights, how(x), OUTPUTS)[0].argmax(axis=1) == y)
                  for x, y in ((unseen, unseen_labels), (committed, labels))]
        print(f"{name:42} {shares[0]:8.1%} {shares[1]:9.1%}")
        assert min(shares) >= 0.97 if how is prepare else max(shares) < 0.7, name


def main():
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--check", action="store_true", help="only check the files that are here")
    arguments = parser.parse_args()
    tf.get_logger().setLevel("ERROR")
    seen, unseen = split_digits()
    unseen = draw_images(*unseen, 1, np.random.default_rng(SEED + 1))
    if not arguments.check:
        model = train(*draw_images(*seen, VARIANTS, np.random.default_rng(SEED)))
        weights = trained_weights(model)
        write_images(*(part[:COMMITTED] for part in unseen))
        forms.write_caffe(NETWORK, weights, STEM)
        forms.write_openvino(NETWORK, weights, STEM, OUTPUTS[::-1])
        write_tflite(model)
        write_reference(weights)
    weights = forms.read_caffe(HERE / "digits.caffemodel")[1]
    check_engines(weights)
    check_accuracy(weights, *unseen)
    total = sum(path.stat().st_size for path in HERE.rglob("*") if path.is_file())
    print(f"\n{sum(w.size + b.size for w, b in weights.values())} parameters, {total} bytes")
    assert total < 3_000_000


if __name__ == "__main__":
    main()
