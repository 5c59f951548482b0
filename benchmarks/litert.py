"""What `velmora-model bench --json` measures, for TensorFlow Lite's own Python package at its defaults:

    python benchmarks/litert.py MODEL.tflite ITERATIONS WARMUP
"""

import json
import statistics
import sys
import time
from importlib.metadata import version

import numpy as np
from ai_edge_litert.interpreter import Interpreter

iterations, warmup = map(int, sys.argv[2:])
interpreter = Interpreter(sys.argv[1])
interpreter.allocate_tensors()
source = interpreter.get_input_details()[0]
answer = interpreter.get_output_details()[0]["index"]
image = np.random.default_rng(1).uniform(-1, 1, source["shape"]).astype(np.float32)
latencies = []
for _ in range(warmup + iterations):
    start = time.perf_counter_ns()
    interpreter.set_tensor(source["index"], image)
    interpreter.invoke()
    interpreter.get_tensor(answer)
    latencies.append((time.perf_counter_ns() - start) / 1e6)
print(json.dumps({"engine": f"LiteRT {version('ai-edge-litert')}",
                  "latency_ms": {"p50": statistics.median(latencies[warmup:])}}))
