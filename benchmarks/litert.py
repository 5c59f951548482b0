"""What `velmora-model bench --json` measures, for TensorFlow Lite's own Python package, LiteRT, at its
defaults: the time from a prepared image, height x width x channels, to its answer.

    python benchmarks/litert.py MODEL.tflite ITERATIONS WARMUP
"""

import json
import statistics
import sys
import time
from importlib.metadata import version

import numpy as np
from ai_edge_litert.interpreter import Interpreter


def main():
    file, (iterations, warmup) = sys.argv[1], map(int, sys.argv[2:])
    interpreter = Interpreter(file)
    interpreter.allocate_tensors()
    source = interpreter.get_input_details()[0]
    answer = interpreter.get_output_details()[0]["index"]
    image = np.random.default_rng(1).uniform(-1, 1, source["shape"]).astype(np.float32)
    latencies = []
    wall, busy = time.perf_counter(), time.process_time()
    for i in range(warmup + iterations):
        start = time.perf_counter_ns()
        interpreter.set_tensor(source["index"], image)
        interpreter.invoke()
        interpreter.get_tensor(answer)
        if i >= warmup:
            latencies.append((time.perf_counter_ns() - start) / 1e6)
    wall, busy = time.perf_counter() - wall, time.process_time() - busy
    print(json.dumps({"engine": f"LiteRT {version('ai-edge-litert')}",
                      "latency_ms": {"p50": statistics.median(latencies)},
                      "busy_cores": busy / wall}))


if __name__ == "__main__":
    main()
