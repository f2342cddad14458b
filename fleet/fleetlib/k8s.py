"""The indexed Job that runs a fleet's shards on a Kubernetes cluster
(fleet/k8s/fleet-job.yaml): rendered with the fleet's size, the image and
the scenario.  Nothing here talks to a cluster."""
import json
import os
import shlex
import string

TEMPLATE = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))),
                        "k8s", "fleet-job.yaml")
# what one device needs (fleet/README.md, Benchmarks): CPU at rest with a
# request every 30 s (0.34 to 0.42 s a minute: 6 to 7 millicores) and
# memory (about 9.5 MiB, with room)
CPU_PER_DEVICE_MILLI = 7
MEMORY_PER_DEVICE_MIB = 16


class _Template(string.Template):
    """${NAME} fields only: $(VAR) is Kubernetes' own expansion."""
    pattern = r"""\$(?:(?P<escaped>\$)|\{(?P<braced>[A-Z_]+)\}|(?P<named>(?!x)x)|(?P<invalid>(?!x)x))"""


def _items(args):
    """Command-line items, each a double-quoted YAML scalar (always a
    string, as a container's command must be)."""
    return "".join("            - %s\n" % json.dumps(a) for a in args)


def render(shards, devices, image, scenario="steady", server_url=None, extra="",
           name="korvat-fleet"):
    if shards < 1 or devices < shards:
        raise ValueError("want 1 <= shards <= devices")
    per_shard = -(-devices // shards)
    with open(TEMPLATE) as f:
        text = f.read()
    server = ["--server-url", server_url] if server_url else []
    return _Template(text).substitute(
        NAME=name, SHARDS=shards, DEVICES=devices, IMAGE=image, SCENARIO=scenario,
        SERVER_ARGS=_items(server), EXTRA_ARGS=_items(shlex.split(extra or "")),
        CPU="%dm" % max(250, per_shard * CPU_PER_DEVICE_MILLI),
        MEMORY="%dMi" % max(512, per_shard * MEMORY_PER_DEVICE_MIB + 256))
