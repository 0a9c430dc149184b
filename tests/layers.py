#!/usr/bin/env python3
"""No #include leads to a higher layer, and none lead round in a circle. A module is a header with its source."""
import fnmatch
import graphlib
import pathlib
import re
import sys

# By directory, the lowest layer first: its name and its modules, as names or as paths below the directory; * stands for anything.
# The modules of a directory with /* are its folders and what stands beside them.
ONE = (("only", "*"),)  # no order but that nothing leads round
LAYERS = {
    "app": (
        ("foundation", "kelim_log sdn_ptr handler_run"),
        ("wire tables", "flow_node flow_members oxm_table"),
        ("records", "ssc_kelim_flow_parse ssc_kelim_flow_convert ssc_kelim_flow_db ssc_kelim_mom ssc_kelim_flow_store"),
        ("replies", "ssc_kelim_replies ssc_kelim_adapt"),
        ("queue", "ssc_kelim_ds_stage ssc_sdn_msg_queue"),
        ("synchronisation and removal", "ssc_kelim_data_sync ssc_kelim_removal"),
        ("handlers", "ssc_kelim_msg_to_ssd ssc_kelim_flow_to_ace ssc_kelim_requests"),
        ("diagnostics", "kelim_debug ssc_sdn_proxy_dbg"),
        ("intake", "ssc_sdn_main_list intake_run ssc_kelim_intake"),
        ("southbound", "ssc_sdn_proxy"),
        ("process", "ssc_kelim_init main"),
    ),
    "platform/host/*": (
        ("foundation", "base config fault cgst tls allocator"),
        ("log", "log"),
        ("observability", "timing metrics control"),
        ("services", "ddm fp_com mom packet"),
        ("database clients", "rdnd of_ss programming"),
        ("process", "process program"),
    ),
    "platform/host/of_ss/*": (
        ("wire", "wire"),
        ("connections and desired state", "net desired"),
        ("switch", "switch"),
        ("protocol", "protocol"),
        ("agent", "agent"),
        ("stored", "stored"),
        ("interface", "of_ss views trace_view loop_trace metrics testing"),
    ),
    **{f"platform/host/of_ss/{room}": ONE for room in "wire net desired switch protocol agent stored".split()},
    "platform/host/base": ONE,
    "platform/host/config": ONE,
    "platform/host/log": ONE,
    "platform/host/metrics": ONE,
    "platform/host/control": ONE,
    "platform/host/mom": (
        ("records", "record/*"),
        ("shared state", "database"),
        ("store interface", "store turn_queue"),
        ("stores", "embedded/* redis/*"),
        ("hub", "hub"),
        ("client library", "client views metrics testing start"),
    ),
}
ROOT = pathlib.Path(__file__).resolve().parent.parent


def faults(directory, layers):
    folders = directory.endswith("/*")
    root = ROOT / directory.removesuffix("/*")
    module_of = {path: pathlib.Path(path.relative_to(root).parts[0]).stem if folders else path.relative_to(root).with_suffix("").as_posix()
                 for path in sorted(root.rglob("*")) if path.suffix in (".h", ".c", ".cpp")}
    layer_of = {}
    for level, (_, names) in enumerate(layers):
        for name in names.split():
            stands = [m for m in module_of.values() if fnmatch.fnmatch(m, name) or fnmatch.fnmatch(m.split("/")[-1], name)]
            layer_of.update(dict.fromkeys(stands, level))
            if not stands:
                yield f"tests/layers.py: {directory} has no module {name}"
    uses = {}  # module -> module that it uses -> where
    for path, module in module_of.items():
        if module not in layer_of:
            yield f"{path.relative_to(ROOT)}:1: stands in no layer; the layers of {directory} are in tests/layers.py"
        for number, line in enumerate(path.read_text().splitlines(), 1):
            name = re.match(r'\s*#\s*include\s+"(.+)"', line)
            used = name and next((module_of[base / name[1]] for base in path.parents if base / name[1] in module_of), module)
            if used and used != module:
                uses.setdefault(module, {}).setdefault(used, f"{path.relative_to(ROOT)}:{number}")
    for module, used, place in ((m, u, p) for m, arrows in uses.items() for u, p in arrows.items()):
        here, there = layer_of.get(module, len(layers)), layer_of.get(used, 0)
        if there > here:
            yield f"{place}: {module} is of layer \"{layers[here][0]}\", {used} of \"{layers[there][0]}\", which is above it"
    try:
        graphlib.TopologicalSorter(uses).prepare()
    except graphlib.CycleError as error:
        circle = error.args[1][::-1]
        yield f"{directory}: a circle: " + ", ".join(f"{uses[a][b]} includes {b}" for a, b in zip(circle, circle[1:]))


sys.exit("\n".join(fault for row in LAYERS.items() for fault in faults(*row)) or 0)
