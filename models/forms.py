"""What the makers of the models share. A network is a message of Caffe's format without weights, whose
layers each have one output, called as the layer is; its weights are {layer: (weights, bias)} in Caffe's
layout: convolutions are (out, in / group, height, width), inner products (out, in) over inputs in C, H, W
order. A model's files are STEM.prototxt, STEM.caffemodel and so on."""

import subprocess
from pathlib import Path

import cv2
import numpy as np
import openvino as ov
from google.protobuf import descriptor_pb2, descriptor_pool, message_factory
from openvino import opset7 as op  # the newest of 2021.4

LIMIT, LIMIT_16_BITS = 1e-5, 1e-2  # largest difference between a form's answers and the reference


def caffe_net_class():
    folder = Path(__file__).resolve().parents[1] / "guards/caffe"
    format_set = subprocess.run(
        ["protoc", f"--proto_path={folder}", "--descriptor_set_out=/dev/stdout", "caffe_format.proto"],
        stdout=subprocess.PIPE, check=True).stdout
    pool = descriptor_pool.DescriptorPool()
    pool.Add(descriptor_pb2.FileDescriptorSet.FromString(format_set).file[0])
    return message_factory.GetMessageClass(pool.FindMessageTypeByName("velmora.caffe.NetParameter"))


CaffeNet = caffe_net_class()

# ---- forms of a model --------------------------------------------------------------------------


def write_caffe(network, weights, stem):
    bare, whole = CaffeNet(name=network.name), CaffeNet.FromString(network.SerializeToString())
    for layer in network.layer:
        bare.layer.add(name=layer.name, type=layer.type)
    for file, part in ((f"{stem}.caffemodel", bare), (f"{stem}-binary.caffemodel", whole)):
        for message in part.layer:
            for array in weights.get(message.name, ()):
                message.blobs.add(data=array.ravel()).shape.dim.extend(array.shape)
        Path(file).write_bytes(part.SerializeToString(deterministic=True))


def read_caffe(file):
    """The network in a binary Caffe file with its weights taken out of it, and those weights."""
    network = CaffeNet.FromString(Path(file).read_bytes())
    weights = {}
    for message in network.layer:
        if message.blobs:
            weights[message.name] = tuple(
                np.array(blob.data, np.float32).reshape(blob.shape.dim) for blob in message.blobs)
            message.ClearField("blobs")
    return network, weights


def trim_kernel(w, pad):
    """A convolution's kernel without the zeros that Caffe needs before it where a network pads less before
    an image than behind it, which makes its size even, and the padding before the image."""
    if w.shape[2] % 2:
        return w, pad
    assert not w[:, :, 0].any() and not w[:, :, :, 0].any()
    return w[:, :, 1:, 1:], pad - 1


def write_openvino(network, weights, stem, outputs):
    for device, dtype in (("cpu", np.float32), ("gpu", np.float16)):
        def constant(array):  # 16 bits in the file; the network computes in what its device has
            node = op.constant(array.astype(dtype))
            return node if dtype == np.float32 else op.convert(node, np.float32)

        data = op.parameter(list(network.layer[0].input_param.shape[0].dim), np.float32, name="data")
        nodes = {"data": data}
        for layer in network.layer[1:]:
            inputs = [nodes[name] for name in layer.bottom]
            x, name = inputs[0], layer.name
            w, b = weights.get(name, (None, None))
            conv = layer.convolution_param
            if layer.type == "Convolution":
                w, before = trim_kernel(w, conv.pad[0])
                convolution = op.convolution
                if conv.group > 1:
                    convolution = op.group_convolution
                    w = w.reshape(conv.group, -1, *w.shape[1:])
                x = convolution(x, constant(w), [conv.stride[0]] * 2, [before] * 2, [conv.pad[0]] * 2, [1, 1])
                x = op.add(x, constant(b.reshape(1, -1, 1, 1)), name=name)
            elif layer.type == "ReLU":
                x = op.relu(x, name=name)
            elif layer.type == "ReLU6":
                x = op.clamp(x, 0, 6, name=name)
            elif layer.type == "Eltwise":
                x = op.add(*inputs, name=name)
            elif layer.type == "Pooling":  # the average of a whole channel
                x = op.reduce_mean(x, np.array([2, 3]), True, name=name)
            elif layer.type == "InnerProduct":
                x = op.reshape(x, np.array([0, -1]), special_zero=True)  # 0 keeps the batch size
                x = op.matmul(x, constant(w), False, True)
                x = op.add(x, constant(b.reshape(1, -1)), name=name)
            else:
                assert layer.type == "Softmax", layer
                x = op.softmax(x, 1, name=name)
            nodes[name] = x
        ends = [nodes[name].output(0) for name in ("data", *outputs)]
        for name, end in zip(("data", *outputs), ends):
            end.set_names({name})
        model = ov.Model(ends[1:], [data], network.name)
        # Version 10 is read by the engines of 2021 as well.
        ov.serialize(model, f"{stem}-{device}.xml", f"{stem}-{device}.bin", version="IR_V10")


# ---- checks ------------------------------------------------------------------------------------


def reference_outputs(network, weights, x, outputs):
    """By plain NumPy in double precision, for images in N, C, H, W order."""
    values = {"data": x}
    for layer in network.layer[1:]:
        inputs = [values[name] for name in layer.bottom]
        x = inputs[0]
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
        elif layer.type in ("ReLU", "ReLU6"):
            x = np.clip(x, 0, 6 if layer.type == "ReLU6" else None)
        elif layer.type == "Eltwise":
            x = sum(inputs)
        elif layer.type == "Pooling":
            x = x.mean(axis=(2, 3), keepdims=True)
        elif layer.type == "InnerProduct":
            x = x.reshape(len(x), -1) @ w.T + b
        else:
            x = np.exp(x - x.max(axis=1, keepdims=True))
            x /= x.sum(axis=1, keepdims=True)
        values[layer.name] = x
    return [values[name] for name in outputs]


def dnn_outputs(prototxt, caffemodel, x, outputs):
    net = cv2.dnn.readNetFromCaffe(prototxt, caffemodel)
    results = []
    for image in x:
        net.setInput(image[None], "data")
        results.append([output[0].copy() for output in net.forward(outputs)])
    return [np.stack(result) for result in zip(*results)]


def openvino_outputs(file, x, outputs):
    # Without the hint the CPU plugin computes in bfloat16 on processors that have it.
    model = ov.Core().compile_model(file, "CPU", {"INFERENCE_PRECISION_HINT": "f32"})
    results = [model(image[None]) for image in x]
    return [np.stack([result[name][0].copy() for result in results]) for name in outputs]


def tflite_outputs(file, x, outputs, interpreter_class):
    interpreter = interpreter_class(file)
    interpreter.allocate_tensors()
    (data,), (result,) = interpreter.get_input_details(), interpreter.get_output_details()
    assert (data["name"], data["shape"].tolist()) == ("data", [1, *x.shape[2:], 3]), data
    assert result["name"] == outputs[0], result
    results = []
    for image in x:
        interpreter.set_tensor(data["index"], image.transpose(1, 2, 0)[None])
        interpreter.invoke()
        results.append(interpreter.get_tensor(result["index"])[0])
    return [np.stack(results)]


def check_engines(stem, network, x, labels, outputs, reference, interpreter_class):
    """Every form, run by its engine, against the reference. TensorFlow Lite has the first output only."""
    description, weights = read_caffe(f"{stem}-binary.caffemodel")
    assert description == network
    again = read_caffe(f"{stem}.caffemodel")[1]
    assert all(np.array_equal(a, b) for name in weights for a, b in zip(weights[name], again[name]))

    x = x.astype(np.float32)
    prototxt, name = f"{stem}.prototxt", Path(stem).name
    forms = {
        f"{name}.prototxt, {name}.caffemodel": dnn_outputs(
            prototxt, f"{stem}.caffemodel", x, outputs),
        f"{name}.prototxt, {name}-binary.caffemodel": dnn_outputs(
            prototxt, f"{stem}-binary.caffemodel", x, outputs),
        f"{name}-cpu.xml": openvino_outputs(f"{stem}-cpu.xml", x, outputs),
        f"{name}-gpu.xml, on the CPU": openvino_outputs(f"{stem}-gpu.xml", x, outputs),
        f"{name}.tflite": tflite_outputs(f"{stem}.tflite", x, outputs, interpreter_class),
    }
    print(f"\n{'largest difference to the reference':42}", *(f"{name:>9}" for name in outputs), " right")
    for name, found in forms.items():
        differences = [np.abs(a - b).max() for a, b in zip(found, reference)]
        right = np.mean(found[0].argmax(axis=1) == labels)
        columns = "".join(f"{difference:10.1e}" for difference in differences)
        print(f"{name:42}{columns:{10 * len(outputs)}}  {right:6.1%}")
        limit = LIMIT_16_BITS if "gpu" in name else LIMIT
        assert max(differences) < limit, f"{name} differs by more than {limit}"
