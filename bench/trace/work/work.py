"""A workload: JSON written and read."""
import json

for _ in range(20):
    json.loads(json.dumps({str(i): list(range(i % 50)) for i in range(100)}))
