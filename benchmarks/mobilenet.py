"""Makes a network of MobileNet's size in the form of every engine that is measured, all with the same
random weights, and the sample model's form for ONNX Runtime, whose other forms are in models/digits.

    python benchmarks/mobilenet.py FOLDER

FOLDER gets mobilenet.{prototxt,caffemodel,xml,bin,tflite,onnx}; model.json, and moving.json for a
network that may use a GPU; noise.png to run it on; digits.onnx. Needs the packages of requirements.txt.
"""

import json
import os
import sys
from pathlib import Path

os.environ.setdefault("TF_CPP_MIN_LOG_LEVEL", "2")  # read when tensorflow is imported

import cv2
import numpy as np
import onnx
import onnxruntime as ort
import openvino as ov
import tensorflow as tf
from onnx import helper, numpy_helper

DIGITS = Path(__file__).resolve().parent.parent / "models/digits"
SIZE, CLASSES, SEED = 224, 1000, 20
BLOCKS = [(64, 1), (128, 2), (128, 1), (256, 2), (256, 1), (512, 2), (512, 1), (512, 1), (512, 1),
          (512, 1), (512, 1), (1024, 2), (1024, 1)]  # (channels, stride)


def mobilenet():
    """[(weights, bias, stride)]: convolutions (out, in / group, height, width), each followed by a
    ReLU, the depthwise ones with 1 for in / group; last the fully connected layer (out, in). The
    deviations keep the values alike from layer to layer, or the answers would be all 0 or 1."""
    rng = np.random.default_rng(SEED)

    def layer(*shape, stride=1):
        deviation = np.sqrt(2 / np.prod(shape[1:]))
        weights = rng.normal(0, deviation, shape).astype(np.float32)
        return weights, rng.normal(0, 0.1, shape[0]).astype(np.float32), stride

    layers = [layer(32, 3, 3, 3, stride=2)]
    for channels, stride in BLOCKS:
        inputs = len(layers[-1][1])
        layers += [layer(inputs, 1, 3, 3, stride=stride), layer(channels, inputs, 1, 1)]
    return layers + [layer(CLASSES, len(layers[-1][1]))]


def digits():
    """The sample model's layers, out of its form for OpenVINO."""
    layers = []
    for node in ov.Core().read_model(DIGITS / "digits-cpu.xml").get_ordered_ops():
        if node.get_type_name() in ("Convolution", "GroupConvolution", "MatMul"):
            weights = node.input_value(1).get_node().data
            if weights.ndim == 5:  # (groups, out, in, height, width)
                weights = weights.reshape(-1, *weights.shape[2:])
            if weights.ndim == 2 and not node.get_attributes()["transpose_b"]:
                weights = weights.T
            (add,) = (user.get_node() for user in node.output(0).get_target_inputs())
            bias = next(value.get_node().data for value in add.input_values()
                        if value.get_node().get_type_name() == "Constant")
            layers.append((weights, bias.ravel(), node.get_attributes().get("strides", [1])[0]))
    return layers


def write_onnx(layers, height, width, mean, file):
    """With or without the mean of each plane before the fully connected layer."""
    nodes, constants, top = [], [], "data"

    def add(kind, inputs, output, **attributes):
        nodes.append(helper.make_node(kind, [top, *inputs], [output], **attributes))
        return output

    for i, (weights, bias, stride) in enumerate(layers):
        constants += [numpy_helper.from_array(np.ascontiguousarray(weights), f"weights{i}"),
                      numpy_helper.from_array(bias, f"bias{i}")]
        inputs = [f"weights{i}", f"bias{i}"]
        if weights.ndim == 4:
            group = len(bias) if weights.shape[1] == 1 else 1
            top = add("Conv", inputs, f"conv{i}", strides=[stride] * 2, group=group,
                      pads=[weights.shape[2] // 2] * 4)
            top = add("Relu", [], f"relu{i}")
        else:
            top = add("GlobalAveragePool", [], "mean") if mean else top
            top = add("Flatten", [], "flat")
            top = add("Gemm", inputs, "score", transB=1)
    top = add("Softmax", [], "prob")
    tensors = [helper.make_tensor_value_info(name, onnx.TensorProto.FLOAT, shape) for name, shape in
               (("data", [1, 3, height, width]), ("prob", [1, len(layers[-1][1])]))]
    graph = helper.make_graph(nodes, file.stem, tensors[:1], tensors[1:], constants)
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)], ir_version=8)
    onnx.checker.check_model(model, full_check=True)
    onnx.save(model, file)


def write_caffe(layers, folder):
    """The description as text; the weights in Caffe's binary form, of which four messages are used:
    NetParameter { layer = 100 }, LayerParameter { name = 1, type = 2, blobs = 7 },
    BlobProto { data = 5, shape = 7 }, BlobShape { dim = 1 }."""
    def varint(number):
        return (bytes([number]) if number < 128 else
                bytes([number & 127 | 128]) + varint(number >> 7))

    def field(number, content):  # of a known length, as all of these are
        return varint(number << 3 | 2) + varint(len(content)) + content

    def blob(array):
        return field(5, array.tobytes()) + field(7, field(1, b"".join(map(varint, array.shape))))

    text = [f'name: "{folder.name}"']
    text.append('layer { name: "data" type: "Input" top: "data" '
                f"input_param {{ shape {{ dim: 1 dim: 3 dim: {SIZE} dim: {SIZE} }} }} }}")
    binary, top = b"", "data"

    def add(name, kind, parameters="", in_place=False):
        nonlocal top
        text.append(f'layer {{ name: "{name}" type: "{kind}" bottom: "{top}" '
                    f'top: "{top if in_place else name}" {parameters}}}')
        top = top if in_place else name

    for i, (weights, bias, stride) in enumerate(layers):
        out, kernel = len(bias), weights.shape[-1]
        if weights.ndim == 4:
            kind = "Convolution"
            group = out if weights.shape[1] == 1 else 1
            add(f"layer{i}", kind, f"convolution_param {{ num_output: {out} kernel_size: {kernel} "
                f"pad: {kernel // 2} stride: {stride} group: {group} }} ")
            add(f"relu{i}", "ReLU", in_place=True)
        else:
            kind = "InnerProduct"
            add("mean", "Pooling", "pooling_param { pool: AVE global_pooling: true } ")
            add(f"layer{i}", kind, f"inner_product_param {{ num_output: {out} }} ")
        binary += field(100, field(1, b"layer%d" % i) + field(2, kind.encode())
                        + field(7, blob(weights)) + field(7, blob(bias)))
    add("prob", "Softmax")
    (folder / "mobilenet.prototxt").write_text("\n".join(text) + "\n")
    (folder / "mobilenet.caffemodel").write_bytes(binary)


def write_tflite(layers, folder):
    keras = tf.keras.layers
    model = tf.keras.Sequential([tf.keras.Input((SIZE, SIZE, 3), batch_size=1)])
    for weights, bias, stride in layers:
        if weights.ndim == 2:
            model.add(keras.GlobalAveragePooling2D())
            layer = keras.Dense(len(bias), "softmax")
            arrays = weights.T
        else:
            # The engine's own "same" padding is lopsided for stride 2.
            if stride == 2:
                model.add(keras.ZeroPadding2D(1))
            window = {"kernel_size": weights.shape[2], "strides": stride, "activation": "relu",
                      "padding": "valid" if stride == 2 else "same"}
            if weights.shape[1] == 1:
                layer = keras.DepthwiseConv2D(**window)
                arrays = weights.transpose(2, 3, 0, 1)
            else:
                layer = keras.Conv2D(len(bias), **window)
                arrays = weights.transpose(2, 3, 1, 0)
        model.add(layer)
        layer.set_weights([arrays, bias])
    shape = tf.TensorSpec([1, SIZE, SIZE, 3], tf.float32, name="data")
    network = tf.function(lambda data: model(data), input_signature=[shape])
    converter = tf.lite.TFLiteConverter.from_concrete_functions(
        [network.get_concrete_function()], network)
    (folder / "mobilenet.tflite").write_bytes(converter.convert())


def write_description(folder):
    """And an image for `velmora-model compare`, whose answers show that the forms are one network."""
    noise = np.random.default_rng(SEED).integers(0, 256, (SIZE, SIZE, 3), np.uint8)
    cv2.imwrite(str(folder / "noise.png"), noise)
    forms = {f"{key}_path": f"mobilenet.{form}" for key, form in (
        ("dnn_prototxt", "prototxt"), ("dnn_caffemodel", "caffemodel"), ("ie_cpu_xml", "xml"),
        ("ie_cpu_bin", "bin"), ("tflite_model", "tflite"))}
    gpu = {"ie_gpu_xml_path": "mobilenet.xml", "ie_gpu_bin_path": "mobilenet.bin"}
    for file, more in (("model.json", {}), ("moving.json", gpu)):
        (folder / file).write_text(json.dumps({
            "name": "MobileNet's size",
            "network": {"output_names": ["prob"], "enable_dnn": True, "enable_ie": True,
                        "enable_tflite": True, "batch_size": 1, **forms, **more},
            "image": {"width": SIZE, "height": SIZE, "channels": "rgb", "mean": [127.5] * 3,
                      "scale": [1 / 128] * 3},
        }, indent=2) + "\n")


def check_onnx(file, xml):
    """Against OpenVINO on the same network; `velmora-model compare` checks the other forms."""
    session = ort.InferenceSession(file)
    image = np.random.default_rng(SEED).uniform(-1, 1, session.get_inputs()[0].shape)
    model = ov.Core().compile_model(xml, "CPU", {"INFERENCE_PRECISION_HINT": "f32"})
    (prob,) = session.run(["prob"], {"data": image.astype(np.float32)})
    other = model(image.astype(np.float32))["prob"]
    assert np.allclose(prob, other, rtol=1e-3, atol=1e-6), (file, np.abs(prob - other).max())
    print(f"{file.name}: answers from {prob.min():.2g} to {prob.max():.2g}, at most "
          f"{np.abs(prob - other).max():.1g} from OpenVINO's")


def main():
    folder = Path(sys.argv[1])
    folder.mkdir(parents=True, exist_ok=True)
    tf.get_logger().setLevel("ERROR")
    layers = mobilenet()
    write_caffe(layers, folder)
    write_tflite(layers, folder)
    write_onnx(layers, SIZE, SIZE, True, folder / "mobilenet.onnx")
    ov.save_model(ov.convert_model(folder / "mobilenet.onnx"), folder / "mobilenet.xml",
                  compress_to_fp16=False)
    image = json.loads((DIGITS / "model.json").read_text())["image"]
    write_onnx(digits(), image["height"], image["width"], False, folder / "digits.onnx")
    check_onnx(folder / "mobilenet.onnx", folder / "mobilenet.xml")
    check_onnx(folder / "digits.onnx", DIGITS / "digits-cpu.xml")
    write_description(folder)


if __name__ == "__main__":
    main()
