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
from pathlib import Path

os.environ.setdefault("TF_CPP_MIN_LOG_LEVEL", "2")  # read when tensorflow is imported

import cv2
import numpy as np
import openvino as ov
import tensorflow as tf
from google.protobuf import descriptor_pb2, descriptor_pool, message_factory, text_format
from openvino import opset7 as op  # the newest of 2021.4
from sklearn.datasets import load_digits
from sklearn.model_selection import train_test_split
from tensorflow.lite.tools import flatbuffer_utils

HERE = Path(__file__).resolve().parent
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

# The messages of Caffe's format, as far as this network uses them: name, number and type of the
# fields, "*" for repeated, "#" for repeated and packed.
CAFFE_MESSAGES = {
    "BlobShape": "dim 1 int64#",
    "BlobProto": "data 5 float#, shape 7 BlobShape",
    "InputParameter": "shape 1 BlobShape*",
    "ConvolutionParameter": "num_output 1 uint32, pad 3 uint32*, kernel_size 4 uint32*, "
                            "group 5 uint32, stride 6 uint32*",
    "InnerProductParameter": "num_output 1 uint32",
    "LayerParameter": "name 1 string, type 2 string, bottom 3 string*, top 4 string*, "
                      "blobs 7 BlobProto*, convolution_param 106 ConvolutionParameter, "
                      "inner_product_param 117 InnerProductParameter, "
                      "input_param 143 InputParameter",
    "NetParameter": "name 1 string, layer 100 LayerParameter*",
}


def caffe_net_class():
    file = descriptor_pb2.FileDescriptorProto(name="caffe.proto", package="caffe")
    for message_name, fields in CAFFE_MESSAGES.items():
        message = file.message_type.add(name=message_name)
        for name, number, kind in (field.split() for field in fields.split(", ")):
            field = message.field.add(name=name, number=int(number))
            field.label = field.LABEL_REPEATED if kind[-1] in "*#" else field.LABEL_OPTIONAL
            if kind[-1] == "#":
                field.options.packed = True
            kind = kind.rstrip("*#")
            if kind in CAFFE_MESSAGES:
                field.type_name = f".caffe.{kind}"
            field.type = getattr(field, f"TYPE_{kind.upper()}", field.TYPE_MESSAGE)
    pool = descriptor_pool.DescriptorPool()
    pool.Add(file)
    return message_factory.GetMessageClass(pool.FindMessageTypeByName("caffe.NetParameter"))


CaffeNet = caffe_net_class()
NETWORK = text_format.Parse((HERE / "digits.prototxt").read_text(), CaffeNet())
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


def write_caffe(weights):
    bare, whole = CaffeNet(name=NETWORK.name), CaffeNet.FromString(NETWORK.SerializeToString())
    for layer in NETWORK.layer:
        bare.layer.add(name=layer.name, type=layer.type)
    for file, part in (("digits.caffemodel", bare), ("digits-binary.caffemodel", whole)):
        for message in part.layer:
            for array in weights.get(message.name, ()):
                message.blobs.add(data=array.ravel()).shape.dim.extend(array.shape)
        (HERE / file).write_bytes(part.SerializeToString(deterministic=True))


def read_caffe(file):
    """The network in a binary Caffe file with its weights taken out of it, and those weights."""
    net = CaffeNet.FromString((HERE / file).read_bytes())
    weights = {}
    for message in net.layer:
        if message.blobs:
            weights[message.name] = tuple(
                np.array(blob.data, np.float32).reshape(blob.shape.dim) for blob in message.blobs)
            message.ClearField("blobs")
    return net, weights


def write_openvino(weights):
    for name, dtype in (("digits-cpu", np.float32), ("digits-gpu", np.float16)):
        def constant(array):  # 16 bits in the file; the network computes in what its device has
            node = op.constant(array.astype(dtype))
            return node if dtype == np.float32 else op.convert(node, np.float32)

        data = op.parameter([1, 3, HEIGHT, WIDTH], np.float32, name="data")
        nodes = [data]
        for layer in LAYERS:
            x = nodes[-1]
            w, b = weights.get(layer.name, (None, None))
            conv = layer.convolution_param
            if layer.type == "Convolution":
                convolution = op.convolution
                if conv.group > 1:
                    convolution = op.group_convolution
                    w = w.reshape(conv.group, -1, *w.shape[1:])
                strides, pads = [conv.stride[0]] * 2, [conv.pad[0]] * 2
                x = convolution(x, constant(w), strides, pads, pads, [1, 1])
                x = op.add(x, constant(b.reshape(1, -1, 1, 1)), name=layer.name)
            elif layer.type == "ReLU":
                x = op.relu(x, name=layer.name)
            elif layer.type == "InnerProduct":
                x = op.reshape(x, np.array([0, -1]), special_zero=True)  # 0 keeps the batch size
                x = op.matmul(x, constant(w), False, True)
                x = op.add(x, constant(b.reshape(1, -1)), name=layer.name)
            else:
                x = op.softmax(x, 1, name=layer.name)
            nodes.append(x)
        ends = {node.friendly_name: node.output(0) for node in nodes}
        for end in ("data", "features", "prob"):
            ends[end].set_names({end})
        model = ov.Model([ends["features"], ends["prob"]], [data], "digits")
        # Version 10 is read by the engines of 2021 as well.
        ov.serialize(model, HERE / f"{name}.xml", HERE / f"{name}.bin", version="IR_V10")


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


def reference_outputs(weights, x):
    """prob and features by plain NumPy in double precision, for images in N, C, H, W order."""
    for layer in LAYERS:
        conv = layer.convolution_param
        if layer.name in weights:
            w, b = (array.astype(np.float64) for array in weights[layer.name])
        if layer.type == "Convolution":
            pad, stride = conv.pad[0], conv.stride[0]
            x = np.pad(x, ((0, 0), (0, 0), (pad, pad), (pad, pad)))
            windows = np.lib.stride_tricks.sliding_window_view(x, w.shape[2:], axis=(2, 3))
            windows = windows[:, :, ::stride, ::stride]
            groups = zip(np.split(windows, conv.group, axis=1), np.split(w, conv.group))
            x = np.concatenate([np.einsum("nihwyx,oiyx->nohw", part, kernel, optimize=True)
                                for part, kernel in groups], axis=1) + b.reshape(-1, 1, 1)
        elif layer.type == "ReLU":
            x = np.maximum(x, 0)
        elif layer.type == "InnerProduct":
            x = x.reshape(len(x), -1) @ w.T + b
        else:
            x = np.exp(x - x.max(axis=1, keepdims=True))
            x /= x.sum(axis=1, keepdims=True)
        if layer.name == "features":
            features = x
    return x, features


def write_reference(weights):
    names, images, _ = read_images()
    prob, features = reference_outputs(weights, prepare(images))

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


def dnn_outputs(caffemodel, x):
    net = cv2.dnn.readNetFromCaffe(str(HERE / "digits.prototxt"), str(HERE / caffemodel))
    prob, features = [], []
    for image in x:
        net.setInput(image[None], "data")
        for found, output in zip((prob, features), net.forward(["prob", "features"])):
            found.append(output[0].copy())
    return np.stack(prob), np.stack(features)


def openvino_outputs(file, x):
    # Without the hint the CPU plugin computes in bfloat16 on processors that have it.
    model = ov.Core().compile_model(HERE / file, "CPU", {"INFERENCE_PRECISION_HINT": "f32"})
    results = [model(image[None]) for image in x]
    return tuple(np.stack([r[name][0].copy() for r in results]) for name in ("prob", "features"))


def tflite_outputs(file, x):
    interpreter = tf.lite.Interpreter(str(HERE / file))
    interpreter.allocate_tensors()
    (data,), (result,) = interpreter.get_input_details(), interpreter.get_output_details()
    assert (data["name"], data["shape"].tolist()) == ("data", [1, HEIGHT, WIDTH, 3]), data
    assert (result["name"], result["shape"].tolist()) == ("prob", [1, 10]), result
    prob = []
    for image in x:
        interpreter.set_tensor(data["index"], image.transpose(1, 2, 0)[None])
        interpreter.invoke()
        prob.append(interpreter.get_tensor(result["index"])[0])
    return (np.stack(prob),)


def check_engines(weights):
    """Every form, run by its engine, against the reference."""
    _, images, labels = read_images()
    x = prepare(images)
    reference = reference_outputs(weights, x)
    stored = json.loads((HERE / "reference.json").read_text())
    assert np.allclose(stored["prob"], reference[0], rtol=1e-8, atol=0)
    features = np.reshape(stored["features"]["values"], (WITH_FEATURES, *FEATURES_SHAPE))
    assert np.allclose(features, reference[1][:WITH_FEATURES], rtol=1e-8, atol=1e-12)

    description, again = read_caffe("digits-binary.caffemodel")
    assert description == NETWORK
    assert all(np.array_equal(a, b) for name in weights for a, b in zip(weights[name], again[name]))

    x = x.astype(np.float32)
    forms = {
        "digits.prototxt, digits.caffemodel": dnn_outputs("digits.caffemodel", x),
        "digits.prototxt, digits-binary.caffemodel": dnn_outputs("digits-binary.caffemodel", x),
        "digits-cpu.xml": openvino_outputs("digits-cpu.xml", x),
        "digits-gpu.xml, on the CPU": openvino_outputs("digits-gpu.xml", x),
        "digits.tflite": tflite_outputs("digits.tflite", x),
    }
    print(f"\n{'largest difference to the reference':42} {'prob':>8} {'features':>9}  right")
    for name, found in forms.items():
        differences = [np.abs(a - b).max() for a, b in zip(found, reference)]
        right = np.mean(found[0].argmax(axis=1) == labels)
        print(f"{name:42} {' '.join(f'{d:8.1e}' for d in differences):17}  {right:6.1%}")
        assert max(differences) < (1e-2 if "gpu" in name else 1e-5), name


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
        shares = [np.mean(reference_outputs(weights, how(x))[0].argmax(axis=1) == y)
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
        write_caffe(weights)
        write_openvino(weights)
        write_tflite(model)
        write_reference(weights)
    weights = read_caffe("digits.caffemodel")[1]
    check_engines(weights)
    check_accuracy(weights, *unseen)
    total = sum(path.stat().st_size for path in HERE.rglob("*") if path.is_file())
    print(f"\n{sum(w.size + b.size for w, b in weights.values())} parameters, {total} bytes")
    assert total < 3_000_000


if __name__ == "__main__":
    main()
