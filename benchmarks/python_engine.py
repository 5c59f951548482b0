"""What `velmora-model bench --json` measures, for an engine called from Python: the time from a prepared
image, height x width x channels, to its answer.

    python benchmarks/python_engine.py litert MODEL.tflite THREADS ITERATIONS WARMUP
    python benchmarks/python_engine.py onnx MODEL.onnx THREADS ITERATIONS WARMUP

LiteRT, which is TensorFlow Lite's own package, is left at its defaults, whatever THREADS says.
"""

import json
import statistics
import sys
import time
from importlib.metadata import version

import numpy as np


def litert(file, _):
    """The engine, the shape of an image, and a function from one to its answer."""
    from ai_edge_litert.interpreter import Interpreter
    interpreter = Interpreter(file)
    interpreter.allocate_tensors()
    source = interpreter.get_input_details()[0]
    answer = interpreter.get_output_details()[0]["index"]

    def run(image):
        interpreter.set_tensor(source["index"], image[None])
        interpreter.invoke()
        return interpreter.get_tensor(answer)
    return f"LiteRT {version('ai-edge-litert')}", source["shape"][1:], run


def onnx(file, threads):
    import onnxruntime as ort
    options = ort.SessionOptions()
    options.intra_op_num_threads = threads
    session = ort.InferenceSession(file, options, providers=["CPUExecutionProvider"])
    _, channels, height, width = session.get_inputs()[0].shape

    def run(image):
        return session.run(["prob"], {"data": np.ascontiguousarray(image.transpose(2, 0, 1))[None]})
    return f"ONNX Runtime {ort.__version__}", (height, width, channels), run


def main():
    threads, iterations, warmup = map(int, sys.argv[3:])
    engine, shape, run = {"litert": litert, "onnx": onnx}[sys.argv[1]](sys.argv[2], threads)
    image = np.random.default_rng(1).uniform(-1, 1, shape).astype(np.float32)
    latencies = []
    for i in range(warmup + iterations):
        start = time.perf_counter_ns()
        run(image)
        if i >= warmup:
            latencies.append((time.perf_counter_ns() - start) / 1e6)
    print(json.dumps({"engine": engine, "latency_ms": {"p50": statistics.median(latencies)}}))


if __name__ == "__main__":
    main()
