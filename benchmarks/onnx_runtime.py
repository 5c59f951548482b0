"""What `velmora-model bench --json` measures, for ONNX Runtime: the time from a prepared image, height x
width x channels, to its answer.

    python benchmarks/onnx_runtime.py MODEL.onnx THREADS ITERATIONS WARMUP
"""

import json
import statistics
import sys
import time

import numpy as np
import onnxruntime as ort


def main():
    file, (threads, iterations, warmup) = sys.argv[1], map(int, sys.argv[2:])
    options = ort.SessionOptions()
    options.intra_op_num_threads = threads
    session = ort.InferenceSession(file, options, providers=["CPUExecutionProvider"])
    _, channels, height, width = session.get_inputs()[0].shape
    image = np.random.default_rng(1).uniform(-1, 1, (height, width, channels)).astype(np.float32)
    latencies = []
    wall, busy = time.perf_counter(), time.process_time()
    for i in range(warmup + iterations):
        start = time.perf_counter_ns()
        session.run(["prob"], {"data": np.ascontiguousarray(image.transpose(2, 0, 1))[None]})
        if i >= warmup:
            latencies.append((time.perf_counter_ns() - start) / 1e6)
    wall, busy = time.perf_counter() - wall, time.process_time() - busy
    print(json.dumps({"engine": f"ONNX Runtime {ort.__version__}",
                      "latency_ms": {"p50": statistics.median(latencies)},
                      "busy_cores": busy / wall}))


if __name__ == "__main__":
    main()
