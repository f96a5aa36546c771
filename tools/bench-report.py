#!/usr/bin/env python3
"""Turns the results of tools/bench-report.sh into docs/BENCHMARKS.md.

usage: bench-report.py RESULTS_DIR NOTES.md OUT.md

Every figure is the median over the repetitions of one run; every ratio compares
two figures of that same run.
"""
import json
import re
import os
import sys

results, notes_path, out_path = sys.argv[1:4]


def load(name):
    path = os.path.join(results, name + ".json")
    if not os.path.exists(path):
        return {}
    with open(path) as f:
        data = json.load(f)
    runs = {}
    for b in data.get("benchmarks", []):
        if b.get("aggregate_name", "median") != "median" or b.get("error_occurred"):
            continue
        # Benchmarks with their own run length carry it in the name.
        name = "/".join(part for part in b["run_name"].split("/")
                        if not part.startswith(("min_time:", "repeats:")))
        runs[name] = b
    return runs


def machine():
    info = {}
    with open(os.path.join(results, "machine.txt")) as f:
        for line in f:
            key, _, value = line.rstrip("\n").partition("=")
            info[key] = value
    return info


e2e, scale, xml, xml_keep = load("e2e"), load("scale"), load("xml"), load("xml_keepheap")
e2e_one = load("e2e_one_cpu")
scale_keep = load("scale_keepheap")
m = machine()
lines = []
summary = []  # (target, measured, limit, met)


def out(text=""):
    lines.append(text)


def us(run, field="real_time"):
    """A time of a run in microseconds."""
    scale_to_us = {"ns": 1e-3, "us": 1.0, "ms": 1e3, "s": 1e6}[run.get("time_unit", "ns")]
    return run[field] * scale_to_us


CPU = "cpu_time"


def fmt(v, digits=1):
    if v is None:
        return "n/a"
    if abs(v) >= 1000:
        return f"{v:,.0f}"
    return f"{v:.{digits}f}"


def ratio(a, b):
    return a / b if a is not None and b else None


# Every target of the report, written once: its label (with {} for a variant), whether
# the figure must stay at most or at least the limit, the limit, and how the figure is shown.
TARGETS = {
    "local": ("1(b) standardKepReqHandle / floor (a), p50", "max", 1.3, 2, ""),
    "host": ("1(c) through the host / floor (a), p50", "max", 2.2, 2, ""),
    "tail": ("1(b) p99 / p50", "max", 3, 2, ""),
    "store": ("3 list-section store, 1,000 sections / json-c floor (worst)", "max", 3, 2, ""),
    "xml": ("4 strXmlParse speed-up over Mini-XML, 850 elements: {}", "min", 2, 2, ""),
    "size": ("5 MIPS stripped text + data", "max", 150, 1, " KiB"),
    "heap": ("5 tree heap / sum of record sizes", "max", 1.10, 3, ""),
    "stall": ("host: p99 beside a stopped owner and 4 stalled clients / p99 alone, {}", "max", 1.5, 2, ""),
    "two_hop": ("host: through the host / two-hop floor, p50, {}", "max", 1.2, 2, ""),
    "direct": ("host: direct route / one-hop floor (a), p50, {}", "max", 1.2, 2, ""),
    "threads": ("host: throughput, 4 clients over 2 owners / 1 client, every CPU", "min", 1.8, 2, ""),
    "scale_get": ("scale: get of a whole list table through the host, 10,000 / 1,000 sections", "max", 12, 1, ""),
    "scale_add": ("scale: one add through the host, 10,000 / 100 sections", "max", 2, 1, ""),
    "scale_memory": ("scale: owner's resident memory / file size, 50,000 sections, at rest", "max", 10, 1, ""),
    "gateway": ("gateway: (through the gateway − host path) / HTTP floor, p50, {}", "max", 1.3, 2, ""),
    "gateway_errors": ("gateway: 64 kept-alive clients, errors", "max", 0, 0, ""),
    "gateway_memory": ("gateway: 64 clients, highest resident memory / after the first second", "max", 1.1, 2, ""),
    "gateway_attacked": ("gateway: a user's get p99 while 1,000 wrong logins come / alone", "max", 2, 2, ""),
    "kepctl": ("kepctl -c get dhcp host − /bin/true, whole process, mean (hyperfine)", "max", 0.5, 2, " ms"),
    "monitor": ("host: get with a stopped watcher / nobody watching, p50", "max", 1.1, 2, ""),
    "changeset": ("change set over 3 modules with a 1,000-section table: (snapshot + rollback) / "
                  "the tables it names read and written once through the host", "max", 1.0, 2, ""),
    "fleet_get": ("fleet: a get to {} devices, time until the last answer / the broker floor's", "max", 3, 2, ""),
    "fleet_set": ("fleet: a set to {} devices, files not changed after it", "max", 0, 0, ""),
    "fleet_restart": ("fleet: broker restart under {} agents, all back and answering / the floor's "
                      "windowed connect", "max", 2, 2, ""),
    "fleet_restart_failed": ("fleet: broker restart under {} agents, failed connections", "max", 0, 0, ""),
    "fleet_share": ("fleet: the agent's share of a round trip / the direct route, p50", "max", 1.2, 2, ""),
}


def target(key, value, detail="", variant=""):
    label, bound, limit, digits, unit = TARGETS[key]
    met = value <= limit if bound == "max" else value >= limit
    summary.append((label.format(variant), f"{value:.{digits}f}{unit}",
                    f"{'≤' if bound == 'max' else '≥'} {limit}{unit}", "met" if met else "MISSED", detail))


def requirement(name, holds, detail=""):
    """A target that is a fact rather than a figure."""
    summary.append((name, "yes" if holds else "no", "yes", "met" if holds else "MISSED", detail))


# ---------------------------------------------------------------- header
out("# Benchmarks")
out()
out("Generated by `tools/bench-report.sh` (do not edit by hand: run the script again). "
    "Every figure is the median of the repetitions of one run; every ratio compares two figures "
    "of that same run, because absolute times on a shared machine drift.")
out()
out("| machine | |")
out("|---|---|")
out(f"| date | {m.get('date', '?')} |")
out(f"| CPU | {m.get('cpu', '?')} ({m.get('nproc', '?')} logical CPUs) |")
out(f"| kernel | {m.get('kernel', '?')} |")
out(f"| compiler | {m.get('compiler', '?')} |")
out(f"| build | Release (`build-bench/`) |")
out(f"| repetitions | {m.get('reps', '?')} |")
out(f"| load average (1, 5, 15 min) before / after | {m.get('load_before', '?')} / {m.get('load_after', '?')} |")
out()
load1 = float(m.get("load_before", "0 0 0").split()[0] or 0)
nproc = int(m.get("nproc", "1") or 1)
if load1 > nproc:
    out(f"**Noise:** the load average ({load1:.1f}) was above the number of CPUs ({nproc}) when the run "
        "started: other processes competed for the CPUs, which lengthens every wake-up of a process "
        "(and so the cross-process figures and their tails) more than the in-process ones.")
    out()

# ---------------------------------------------------------------- 1. latency
PATHS = [("(a) floor, kept connection", "e2e/floor_kept_connection"),
         ("(a') floor, connection per request", "e2e/floor_connect_per_request"),
         ("floor through a relay process (two hops, kept connections)", "e2e/floor_two_hops_kept"),
         ("stand-in RPC call alone", "e2e/standin_rpc_only"),
         ("(b) standardKepReqHandle", "e2e/request_local"),
         ("(c) through the host daemon", "e2e/request_through_host")]


def latency_table(runs):
    """The paths of one run with their ratios against that run's floors."""
    a = runs.get("e2e/floor_kept_connection")
    ac = runs.get("e2e/floor_connect_per_request")
    out("| path | p50 µs | p99 µs | p99 / p50 | mean µs | p50 / (a) | p50 / (a) per connection |")
    out("|---|---|---|---|---|---|---|")
    for label, name in PATHS:
        run = runs.get(name)
        if not run:
            out(f"| {label} | n/a | | | | | |")
            continue
        out(f"| {label} | {fmt(run['p50_us'])} | {fmt(run['p99_us'])} | "
            f"{fmt(ratio(run['p99_us'], run['p50_us']), 1)} | {fmt(us(run))} | "
            f"{fmt(ratio(run['p50_us'], a['p50_us']) if a else None, 2)} | "
            f"{fmt(ratio(run['p50_us'], ac['p50_us']) if ac else None, 2)} |")
    out()


def p50_ratio(runs, name):
    run, a = runs.get(name), runs.get("e2e/floor_kept_connection")
    return ratio(run["p50_us"], a["p50_us"]) if run and a else None


lat = e2e_one or e2e
floor = lat.get("e2e/floor_kept_connection")
floor_conn = lat.get("e2e/floor_connect_per_request")
local = lat.get("e2e/request_local")
host = lat.get("e2e/request_through_host")
two = lat.get("e2e/floor_two_hops_kept")

out("## 1. End-to-end request latency")
out()
out("A forked owner serves a get of a table of 3 sections x 5 string options (304 bytes of result "
    "JSON) over the stand-in's RPC. The reference (a) is the same request and reply frames over a "
    "Unix-domain stream socket between two processes without the library, json-c parsing the request "
    "and the reply and serialising the response, on a connection kept open, as the stand-in's RPC keeps "
    "them; the same with one connection per request (what a caller's first call to a callee pays) is "
    "shown too, and the kept-connection "
    "floor through a relay process that forwards the frames (two process boundaries, what a broker "
    "cannot avoid). Latencies are per "
    "request, measured one by one (p50, p99); mean is the benchmark's time per iteration.")
out()
if e2e_one:
    out("The targets are taken with the client and every process it talks to on one CPU (`taskset -c 0`). "
        "A wake-up on the other CPU costs an inter-processor interrupt, which on this virtual machine "
        "swings from run to run with where the scheduler puts the processes; on one CPU every hop is a "
        "context switch, as on a single-core device. The same paths on every CPU follow, in the run "
        "that also measures throughput.")
    out()
latency_table(lat)
if e2e_one and e2e:
    out("On every CPU (not pinned):")
    out()
    latency_table(e2e)
a50 = floor["p50_us"] if floor else None
ac50 = floor_conn["p50_us"] if floor_conn else None


def spread(name):
    """The path's ratio on every CPU, when the targets come from the pinned run."""
    return f"; on every CPU: {fmt(p50_ratio(e2e, name), 2)}" if e2e_one and e2e else ""


if local and floor:
    r = p50_ratio(lat, "e2e/request_local")
    target("local", r,
           f"{local['p50_us']:.1f} / {a50:.1f} µs; against a connection per request: "
           f"{ratio(local['p50_us'], ac50):.2f}" + spread("e2e/request_local"))
if host and floor:
    r = p50_ratio(lat, "e2e/request_through_host")
    target("host", r,
           f"{host['p50_us']:.1f} / {a50:.1f} µs; against a connection per request: "
           f"{ratio(host['p50_us'], ac50):.2f}; the two-hop floor itself: "
           f"{fmt(ratio(two['p50_us'], a50) if two else None, 2)} × (a)" + spread("e2e/request_through_host"))
if local:
    r = local["p99_us"] / local["p50_us"]
    fl = ", ".join(f"{name} {run['p99_us'] / run['p50_us']:.1f}" for name, run in
                   (("floor (a)", floor), ("floor (a')", floor_conn)) if run)
    target("tail", r,
           f"{local['p99_us']:.1f} / {local['p50_us']:.1f} µs; the floors in the same run: {fl}")

# ---------------------------------------------------------------- 2. throughput
out("## 2. Throughput under concurrency")
out()
out("Threads of one client process issue gets (path (b)) to the one owner, which serves the "
    "threads' open connections from one poll loop, one request at a time. Requests per second over "
    "all threads; latency per request.")
out()
out("| threads | requests/s | p50 µs | p99 µs | requests/s vs 1 thread |")
out("|---|---|---|---|---|")
one = None
for n in (1, 2, 4, 8):
    run = e2e.get(f"concurrent/get/real_time/threads:{n}")
    if not run:
        out(f"| {n} | n/a | | | |")
        continue
    rps = run.get("items_per_second", 0)
    one = one or rps
    out(f"| {n} | {fmt(rps, 0)} | {fmt(run['p50_us'])} | {fmt(run['p99_us'])} | {fmt(ratio(rps, one), 2)} |")
out()

# ---------------------------------------------------------------- 3. scale
out("## 3. Scale")
out()
out("### Requests against the size of the tree")
out()
out("`standardKepReqHandle` with the owner's callbacks registered in the same process (the "
    "figures are the library's own work, without the socket). The request names the last module "
    "and, for the edit, the last list section; the get asks for a list entry by name that has no "
    "section node, so that every node of the module is walked before the table's callback answers. "
    "The reference is json-c alone parsing and serialising the module's document of that many "
    "sections (1,100 bytes per 10 sections), measured in the same run. Ratios use CPU time, which a "
    "busy machine inflates less than wall-clock time.")
out()
out("| operation | modules | sections | time µs | cpu µs | vs smallest | / doc floor of same sections |")
out("|---|---|---|---|---|---|---|")
growth = {}
for op in ("get_section", "edit_section", "add_section"):
    base = None
    for mods, secs in ((1, 10), (1, 100), (1, 1000), (10, 10), (100, 10), (500, 10)):
        run = scale.get(f"scale/request/{op}/modules:{mods}/sections:{secs}")
        if not run:
            continue
        t = us(run, CPU)
        if (mods, secs) == (1, 10):
            base = t
        docf = scale.get(f"scale/doc_floor/sections:{secs}")
        growth[(op, mods, secs)] = t
        out(f"| {op} | {mods} | {secs} | {fmt(us(run), 2)} | {fmt(t, 2)} | {fmt(ratio(t, base), 2)} | "
            f"{fmt(ratio(t, us(docf, CPU)) if docf else None, 3)} |")
out()
for op in ("get_section", "edit_section", "add_section"):
    s10, s1000 = growth.get((op, 1, 10)), growth.get((op, 1, 1000))
    m10, m500 = growth.get((op, 10, 10)), growth.get((op, 500, 10))
    if s10 and s1000 and m10 and m500:
        out(f"- {op}: 10 → 1,000 sections ×{s1000 / s10:.2f} "
            f"({(s1000 - s10) / 990 * 1000:.1f} ns per extra section); "
            f"10 → 500 modules ×{m500 / m10:.2f} ({(m500 - m10) / 490 * 1000:.1f} ns per extra module).")
out()
out("### Stores: a list section added or updated in the module file")
out()
out("`modelWrite` in the owner's process: changes one list section of the module's document, which "
    "the process keeps (its first write, before the timing, reads the file), and rewrites the whole "
    "file atomically (temporary file, flush, rename, flush of the folder). On disk "
    "(ext4) the flush is real; on tmpfs it costs nothing, which stands for the store without the "
    "flush (the stand-in always flushes). The floor is json-c alone reading the file and writing it "
    "back the same way, with and without fsync.")
out()
out("On disk the ratio compares wall-clock times (waiting for the flush is the cost); on tmpfs it "
    "compares CPU times.")
out()
out("| operation | sections | file bytes | time µs | cpu µs | floor time µs | floor cpu µs | / floor |")
out("|---|---|---|---|---|---|---|---|")
worst = {}
for op, floor_name in (("update_disk", "disk_fsync"), ("add_disk", "disk_fsync"),
                       ("update_tmpfs", "tmpfs"), ("add_tmpfs", "tmpfs")):
    field = "real_time" if "disk" in op else CPU
    for secs in (10, 100, 1000):
        run = scale.get(f"scale/store/{op}/sections:{secs}")
        fl = scale.get(f"scale/file_floor/{floor_name}/sections:{secs}")
        if not run:
            continue
        r = ratio(us(run, field), us(fl, field)) if fl else None
        if r is not None and secs == 1000:
            worst[op] = r
        out(f"| {op} | {secs} | {fmt(run.get('file_bytes'), 0)} | {fmt(us(run))} | {fmt(us(run, CPU))} | "
            f"{fmt(us(fl)) if fl else 'n/a'} | {fmt(us(fl, CPU)) if fl else 'n/a'} ({floor_name}) | {fmt(r, 2)} |")
for secs in (10, 100, 1000):
    fl = scale.get(f"scale/file_floor/disk_nofsync/sections:{secs}")
    if fl:
        out(f"| json-c floor on disk without fsync | {secs} | | | | {fmt(us(fl))} | {fmt(us(fl, CPU))} | |")
out()
kept = []
for op in ("update_tmpfs", "add_tmpfs"):
    run = scale_keep.get(f"scale/store/{op}/sections:1000")
    fl = scale_keep.get("scale/file_floor/tmpfs/sections:1000")
    if run and fl:
        kept.append(f"{op} {fmt(us(run, CPU))} / {fmt(us(fl, CPU))} µs = {ratio(us(run, CPU), us(fl, CPU)):.2f}")
if kept:
    out("With the heap kept (the same `GLIBC_TUNABLES` as for the XML parse below, so that the "
        "document a store of 1,000 sections frees is not handed back to the kernel and faulted in "
        "again by the next store), CPU time against the floor: " + "; ".join(kept) + ".")
    out()
if worst:
    op = max(worst, key=worst.get)
    target("store", worst[op],
           ", ".join(f"{k} {v:.2f}" for k, v in worst.items()))

out("### The kept document: every section read, one section added")
out()
out("The owner's process keeps the module's parsed file and reads it again only when the file "
    "changed. Read all: every section of a list table read one by one with `modelRead`, as an owner "
    "answers a get of the table, from the kept document (the first read, before the timing, parses the "
    "file; the file is dated a minute back, as an owner's file is when it is read). Add: one list section "
    "added with `modelWrite` (and removed again outside the timing); the store still rewrites the whole "
    "file. Both on disk (ext4), the add with its flush. The references are json-c alone parsing and "
    "serialising the same document, and serialising it alone (the part of a store that grows with the "
    "file), in the same run. Read all compares CPU times, the add wall-clock times (waiting for the "
    "flush is its cost).")
out()
out("| sections | read all µs (cpu) | per section µs | add µs | add cpu µs | json-c parse + serialise µs | "
    "json-c serialise µs |")
out("|---|---|---|---|---|---|---|")
kept_rows = {}
for secs in (100, 1000, 10000):
    ra = scale.get(f"scale/kept/read_all_disk/sections:{secs}")
    ad = scale.get(f"scale/kept/add_disk/sections:{secs}")
    df = scale.get(f"scale/doc_floor/sections:{secs}")
    sf = scale.get(f"scale/doc_floor_serialise/sections:{secs}")
    kept_rows[secs] = (ra, ad, df, sf)
    out(f"| {secs:,} | {fmt(us(ra, CPU)) if ra else 'n/a'} | {fmt(us(ra, CPU) / secs, 2) if ra else 'n/a'} | "
        f"{fmt(us(ad)) if ad else 'n/a'} | {fmt(us(ad, CPU)) if ad else 'n/a'} | "
        f"{fmt(us(df, CPU)) if df else 'n/a'} | {fmt(us(sf, CPU)) if sf else 'n/a'} |")
out()
ra1k, _, df1k, sf1k = kept_rows[1000]
ra10k, ad10k, df10k, sf10k = kept_rows[10000]
_, ad100, _, sf100 = kept_rows[100]
# In the owner's process alone; the targets are taken through the host (section 7).
inproc = {}
if ra1k and ra10k:
    inproc["read"] = (f"in the owner's process alone: {us(ra10k, CPU) / us(ra1k, CPU):.1f} "
                      f"({us(ra10k, CPU) / 10000:.2f} / {us(ra1k, CPU) / 1000:.2f} µs per section)")
    if df1k and df10k:
        inproc["read"] += f"; json-c parse + serialise of the document: {us(df10k, CPU) / us(df1k, CPU):.1f}"
if ad100 and ad10k:
    inproc["add"] = f"in the owner's process alone: {us(ad10k) / us(ad100):.1f}"
    if sf100 and sf10k:
        inproc["add"] += (f"; json-c serialising the document alone: {fmt(us(sf10k, CPU))} / "
                          f"{fmt(us(sf100, CPU))} µs, every store rewriting the whole file")
mem = scale.get("scale/kept_memory/sections:50000") or scale.get("scale/kept_memory/sections:50000/iterations:1")
if mem:
    out(f"Resident memory of a process holding a module file of 50,000 sections "
        f"({mem['file_bytes'] / 1e6:.2f} MB) in the store, its list and section indexes included "
        f"(a fresh process, its tree with the section nodes built first, the growth of its resident set "
        f"over the first read): {mem['kept_rss_bytes'] / 1e6:.1f} MB, {mem['kept_per_file_byte']:.1f} "
        f"times the file; json-c alone holding the same file, measured the same way: "
        f"{mem['jsonc_rss_bytes'] / 1e6:.1f} MB, {mem['jsonc_per_file_byte']:.1f} times.")
    out()
    inproc["memory"] = (f"the kept document alone in a fresh process: {mem['kept_per_file_byte']:.1f}; "
                        f"json-c alone holding the file: {mem['jsonc_per_file_byte']:.1f}")

# ---------------------------------------------------------------- 4. xml
out("## 4. Model description parsing")
out()
out("`strXmlParse` (keeping every element) and Mini-XML's `mxmlLoadString` on the same indented "
    "description; `fdXmlParse` on the same text in a file. The pooled parser's pool goes through 100, "
    "250, 400, 550, 700 and 850 elements as it runs out. Over text, its blocks are allocated with "
    "room for as many elements as the text has start tags (at most the largest pool), records are "
    "taken as they are needed (a block of 64 KiB or more faulted in 64 KiB ahead of them by one call), "
    "and the parse goes on through the sizes without moving anything, so "
    "the text is read once and only the records used are touched; a descriptor is read again from "
    "its start for every size (six times for 850 elements). 90 elements fit the first pool.")
out()
out("Times are CPU time of the parsing thread (user + system), which a busy machine inflates less "
    "than wall-clock time.")
out()
out("| elements | heap | strXmlParse µs | page faults per parse | Mini-XML µs (default / opaque) | Mini-XML best / strXmlParse |")
out("|---|---|---|---|---|---|")
speeds = {}
for n in (850, 90):
    for label, runs in (("default", xml), ("kept (no trim)", xml_keep)):
        s = runs.get(f"xml/strXmlParse/elements:{n}")
        d = runs.get(f"xml/mxmlLoadString_no_callback/elements:{n}")
        o = runs.get(f"xml/mxmlLoadString_opaque/elements:{n}")
        if not s:
            continue
        best = min([us(r, CPU) for r in (d, o) if r] or [0]) or None
        speed = ratio(best, us(s, CPU))
        speeds[(n, label)] = speed
        out(f"| {n} | {label} | {fmt(us(s, CPU))} | {fmt(s.get('faults_per_parse'), 0)} | "
            f"{fmt(us(d, CPU)) if d else 'n/a'} / {fmt(us(o, CPU)) if o else 'n/a'} | {fmt(speed, 2)} |")
out()
blocks = {label: runs.get("xml/pool_blocks_alone/elements:850")
          for label, runs in (("default", xml), ("kept (no trim)", xml_keep))}
if blocks["default"]:
    kept_blocks = blocks["kept (no trim)"]
    out("The heap's part alone, without a parse: the pool's two blocks for 850 elements allocated, the "
        "records the document uses written as the parser writes them, both freed: "
        f"{fmt(us(blocks['default'], CPU))} µs with the default heap "
        f"({fmt(blocks['default'].get('faults_per_parse'), 0)} page faults per round), "
        f"{fmt(us(kept_blocks, CPU)) if kept_blocks else 'n/a'} µs with the heap kept.")
    out()
out("\"kept (no trim)\": the same run with `GLIBC_TUNABLES=glibc.malloc.trim_threshold=67108864:"
    "glibc.malloc.mmap_threshold=67108864`, so that the pool's blocks (265 KB for 850 elements), "
    "freed by `mxmlTreeDelete`, are not handed back to the kernel and faulted in again by the next "
    "parse: the parser's own work. Mini-XML's many small blocks stay in the heap either way.")
out()
first = {}
for name in ("strXmlParse", "mxmlLoadString_opaque"):
    r = xml.get(f"xml/first_parse/{name}/elements:850/manual_time")
    if r:
        first[name] = r
if first:
    out("The parse a process makes of its description at start: each iteration starts the benchmark "
        "program afresh, which warms its code with a small parse and then times one parse and release "
        "of the 850 elements in its new heap (wall-clock time, page faults included).")
    out()
    out("| parser | first parse µs | page faults (getrusage; pages faulted in ahead count too) |")
    out("|---|---|---|")
    for name, r in first.items():
        out(f"| {name} | {fmt(us(r))} | {fmt(r.get('faults_per_parse'), 0)} |")
    out()
    if len(first) == 2:
        speeds[(850, "first")] = ratio(us(first["mxmlLoadString_opaque"]), us(first["strXmlParse"]))
out()
out("| elements | fdXmlParse µs | fdXmlParse / strXmlParse | system share of fdXmlParse (getrusage) |")
out("|---|---|---|---|")
for n in (850, 90):
    f = xml.get(f"xml/fdXmlParse/elements:{n}")
    s = xml.get(f"xml/strXmlParse/elements:{n}")
    if f:
        out(f"| {n} | {fmt(us(f, CPU))} | {fmt(ratio(us(f, CPU), us(s, CPU)) if s else None, 1)} | {round(f['sys_share'] * 100)} % |")
out()
for key, what in (("kept (no trim)", "parse loop, heap kept (the parsers' own work)"),
                  ("first", "first parse in a new process (page faults included)"),
                  ("default", "parse loop, default heap")):
    if speeds.get((850, key)):
        detail = f"90 elements (first pool): {fmt(speeds.get((90, key)), 2)}" if (90, key) in speeds else ""
        if key == "default" and blocks["default"]:
            detail += (f"; the heap's part alone (blocks allocated, written, freed): "
                       f"{fmt(us(blocks['default'], CPU))} µs of strXmlParse's "
                       f"{fmt(us(xml['xml/strXmlParse/elements:850'], CPU))} µs")
        target("xml", speeds[(850, key)], detail, what)

# ---------------------------------------------------------------- 5. footprint
out("## 5. Footprint")
out()
out("| library | stripped bytes | text | data | bss | text + data KiB | needed at run time |")
out("|---|---|---|---|---|---|---|")
fp = {}
fp_path = os.path.join(results, "footprint.txt")
if os.path.exists(fp_path):
    with open(fp_path) as f:
        for line in f:
            parts = line.split()
            if len(parts) < 6:
                continue
            arch, btype = parts[0], parts[1]
            size, text, data, bss = (int(p) for p in parts[2:6])
            needed = parts[6:]
            fp[arch] = (text + data, needed)
            out(f"| libkepHandle.so.0 {arch} ({btype}) | {size:,} | {text:,} | {data:,} | {bss:,} | "
                f"{(text + data) / 1024:.1f} | {', '.join(needed)} |")
out()
if "mips" in fp:
    kib = fp["mips"][0] / 1024
    target("size", kib)
else:
    out("No MIPS build was found (build it with `tools/cross-mips.sh`, or point `KEP_MIPS_BUILD` at one); "
        "the x86-64 figure stands in until then.")
    out()
for arch, (_, needed) in fp.items():
    stdcxx = any("stdc++" in n for n in needed)
    requirement(f"5 no libstdc++ at run time ({arch})", not stdcxx)
heap_path = os.path.join(results, "heap.json")
if os.path.exists(heap_path):
    with open(heap_path) as f:
        h = json.load(f)
    out(f"Heap of a tree of {h['modules']} modules x {h['tables'] // max(h['modules'], 1)} tables x "
        f"{h['sections'] // max(h['tables'], 1)} sections, built from model descriptions "
        f"(`mallinfo2`, in use after minus before): {h['heap_bytes']:,} bytes; sum of its records "
        f"({h['modules']} x {h['sizeof_module']} + {h['tables']} x {h['sizeof_table']} + "
        f"{h['sections']} x {h['sizeof_section']} bytes): {h['record_bytes']:,} bytes; ratio {h['ratio']:.3f}.")
    out()
    target("heap", h["ratio"])

# ---------------------------------------------------------------- the host
out("## 6. The host: no head-of-line blocking, throughput, the direct route")
out()
out("Three owner processes serve one table each through the host (kepd): the owner of the latency "
    "paths, a second healthy one, and a third that is stopped (`SIGSTOP`) while the host is measured "
    "beside it: four threads of the client keep asking the stopped owner (the host gives up on each "
    "call after its one-second time-out) and four connections to the host hold the first bytes of a "
    "request and nothing more (made again whenever the host drops them). The direct route serves the "
    "request in the client's own process on a copy of the host's tree and calls the owner in one hop. "
    "Throughput: threads of one client through the host, each alternating between the two healthy "
    "owners.")
out()


def host_rows(runs, label):
    alone = runs.get("e2e/request_through_host")
    beside = runs.get("e2e/host_beside_stuck")
    direct = runs.get("e2e/request_direct")
    a = runs.get("e2e/floor_kept_connection")
    two = runs.get("e2e/floor_two_hops_kept")
    out(f"{label}:")
    out()
    out("| path | p50 µs | p99 µs | reference | ratio |")
    out("|---|---|---|---|---|")
    if alone and beside:
        out(f"| through the host beside a stopped owner and stalled clients | {fmt(beside['p50_us'])} | "
            f"{fmt(beside['p99_us'])} | p99 alone {fmt(alone['p99_us'])} | "
            f"{fmt(ratio(beside['p99_us'], alone['p99_us']), 2)} |")
    if alone and two:
        out(f"| through the host | {fmt(alone['p50_us'])} | {fmt(alone['p99_us'])} | two-hop floor p50 "
            f"{fmt(two['p50_us'])} | {fmt(ratio(alone['p50_us'], two['p50_us']), 2)} |")
    if direct and a:
        out(f"| direct route | {fmt(direct['p50_us'])} | {fmt(direct['p99_us'])} | floor (a) p50 "
            f"{fmt(a['p50_us'])} | {fmt(ratio(direct['p50_us'], a['p50_us']), 2)} |")
    out()
    return alone, beside, direct, a, two


placements = [("on one CPU", e2e_one), ("on every CPU", e2e)] if e2e_one else [("on every CPU", e2e)]
for where, runs in placements:
    alone, beside, direct, a, two = host_rows(runs, "Every process " + where)
    if alone and beside:
        r = ratio(beside["p99_us"], alone["p99_us"])
        target("stall", r, f"{beside['p99_us']:.1f} / {alone['p99_us']:.1f} µs", where)
    if alone and two:
        r = ratio(alone["p50_us"], two["p50_us"])
        target("two_hop", r, f"{alone['p50_us']:.1f} / {two['p50_us']:.1f} µs", where)
    if direct and a:
        r = ratio(direct["p50_us"], a["p50_us"])
        target("direct", r, f"{direct['p50_us']:.1f} / {a['p50_us']:.1f} µs", where)
out("| threads through the host | requests/s (every CPU) | p50 µs | p99 µs | vs 1 thread | requests/s (one CPU) |")
out("|---|---|---|---|---|---|")
one_free = one_pinned = None
for n in (1, 4):
    run = e2e.get(f"concurrent/host/real_time/threads:{n}")
    pinned = e2e_one.get(f"concurrent/host/real_time/threads:{n}")
    if not run:
        continue
    rps = run.get("items_per_second", 0)
    one_free = one_free or rps
    prps = pinned.get("items_per_second") if pinned else None
    one_pinned = one_pinned or prps
    out(f"| {n} | {fmt(rps, 0)} | {fmt(run['p50_us'])} | {fmt(run['p99_us'])} | {fmt(ratio(rps, one_free), 2)} | "
        f"{fmt(prps, 0) if prps else 'n/a'} |")
out()
four = e2e.get("concurrent/host/real_time/threads:4")
if four and one_free:
    r = ratio(four["items_per_second"], one_free)
    pinned4 = e2e_one.get("concurrent/host/real_time/threads:4")
    detail = f"{four['items_per_second']:,.0f} / {one_free:,.0f} requests/s"
    if pinned4 and one_pinned:
        detail += (f"; on one CPU {ratio(pinned4['items_per_second'], one_pinned):.2f} (one CPU has no "
                   "second core to add)")
    target("threads", r, detail)

# ---------------------------------------------------------------- 7. the system at scale
host_scale = load("host")
out("## 7. The system at scale: through the host")
out()
out("The host daemon and the example owner of the dhcp module (dhcpd), as shipped, with a list table of "
    "static leases in the owner's file on disk (ext4). A get of the whole table through the host "
    "(kepctl's path): the owner reads every lease from its kept document and writes its answer as text, "
    "the host parses it and answers the client. One add through the host: the owner checks the new lease "
    "against every other, stores the whole file with its flush, and the lease is deleted again outside "
    "the timing. Memory: the resident memory of the owner and of the host with 50,000 leases, over the "
    "same processes with none, after a get of the whole table and a second and a half of rest (both give "
    "the memory of large answers back to the system when idle); the peak is the high-water mark.")
out()
out("| sections | file bytes | get of the table ms | add ms |")
out("|---|---|---|---|")
scale_rows = {}
for secs in (100, 1000, 10000):
    g = host_scale.get(f"host/get_table/sections:{secs}")
    a = host_scale.get(f"host/add/sections:{secs}/manual_time")
    scale_rows[secs] = (g, a)
    out(f"| {secs:,} | {fmt(g.get('file_bytes') if g else None, 0)} | {fmt(us(g) / 1000, 2) if g else 'n/a'} | "
        f"{fmt(us(a) / 1000, 2) if a else 'n/a'} |")
out()
g1k, g10k = scale_rows[1000][0], scale_rows[10000][0]
a100, a10k = scale_rows[100][1], scale_rows[10000][1]
if g1k and g10k:
    r = us(g10k) / us(g1k)
    target("scale_get", r, f"{us(g10k) / 1000:.1f} / {us(g1k) / 1000:.2f} ms; " + inproc.get("read", ""))
if a100 and a10k:
    r = us(a10k) / us(a100)
    target("scale_add", r, f"{us(a10k) / 1000:.1f} / {us(a100) / 1000:.2f} ms; " + inproc.get("add", ""))
hm = host_scale.get("host/memory/sections:50000/iterations:1")
if hm:
    out(f"With 50,000 sections ({hm['file_bytes'] / 1e6:.2f} MB): the owner holds "
        f"{hm['owner_rss_over_file']:.1f} times the file at rest (peak {hm['owner_peak_over_file']:.1f}), "
        f"the host {hm['host_rss_over_file']:.1f} times (peak {hm['host_peak_over_file']:.1f}).")
    out()
    target("scale_memory", hm["owner_rss_over_file"],
           f"peak {hm['owner_peak_over_file']:.1f}; the host at rest {hm['host_rss_over_file']:.1f}, peak "
           f"{hm['host_peak_over_file']:.1f}; " + inproc.get("memory", ""))

# ---------------------------------------------------------------- 8. the HTTP gateway
gw, gw_one = load("gateway"), load("gateway_one_cpu")
if gw:
    out("## 8. The HTTP gateway (kepwebd)")
    out()
    out("One client (libcurl, one kept-alive connection) asks for the dhcp module's host table (3 leases, "
        "served by dhcpd as shipped) three ways in the same run: through the host alone (`kepHostRequest`, "
        "no HTTP), from libmicrohttpd answering the same response bytes with the same headers from memory in "
        "a process of its own (the HTTP floor: the price of one HTTP hop), and through kepwebd, which serves "
        "a read over the direct route (the host's tree in its own process, the owner called in one hop). "
        "The gateway's overhead is its time minus the host path's; the target is at most 1.3 times the floor. "
        "When the benchmark runs as root, kepwebd runs as nobody and the host admits it by an access rule for "
        "its group, as on the device. A fourth path asks the host and then the floor, one after the other: the two hops "
        "with nothing joining them. It shows what switching among the four processes costs by itself on this "
        "machine (its time over the host path plus the floor), and what the gateway adds beyond that "
        "(the last column).")
    out()
    placements_gw = [("one CPU", gw_one), ("every CPU", gw)] if gw_one else [("every CPU", gw)]
    out("| placement | host path p50 µs | HTTP floor p50 µs | host then floor p50 µs | through the gateway p50 µs "
        "| p99 µs | (gateway − host) / floor | (gateway − host then floor) / floor |")
    out("|---|---|---|---|---|---|---|---|")
    for where, runs in placements_gw:
        h, f, g = (runs.get(f"gateway/{n}") for n in ("host_path", "http_floor", "through_gateway"))
        if not (h and f and g):
            continue
        r = (g["p50_us"] - h["p50_us"]) / f["p50_us"]
        pair = runs.get("gateway/host_then_floor")
        beyond = f"{(g['p50_us'] - pair['p50_us']) / f['p50_us']:.2f}" if pair else "–"
        out(f"| {where} | {fmt(h['p50_us'])} | {fmt(f['p50_us'])} | {fmt(pair['p50_us']) if pair else '–'} | "
            f"{fmt(g['p50_us'])} | {fmt(g['p99_us'])} | {r:.2f} | {beyond} |")
        target("gateway", r, f"({g['p50_us']:.1f} − {h['p50_us']:.1f}) / {f['p50_us']:.1f} µs", where)
    out()
    soak = next((v for k, v in gw.items() if k.startswith("gateway/clients/64")), None)
    if soak:
        flat = soak["rss_max_kb"] / soak["rss_start_kb"] if soak["rss_start_kb"] else None
        out(f"64 kept-alive clients for {soak['seconds']:.0f} s: {soak['requests_per_s']:,.0f} requests/s, "
            f"p50 {fmt(soak['p50_us'])} µs, p99 {fmt(soak['p99_us'])} µs, {soak['errors']:.0f} errors; the "
            f"gateway's resident memory {soak['rss_start_kb']:,.0f} KiB after the first second, at most "
            f"{soak['rss_max_kb']:,.0f} KiB, {soak['rss_end_kb']:,.0f} KiB at the end.")
        out()
        target("gateway_errors", soak["errors"],
               f"{soak['requests_per_s']:,.0f} requests/s, p99 {soak['p99_us'] / 1000:.1f} ms")
        if flat:
            target("gateway_memory", flat, f"{soak['rss_max_kb']:,.0f} / {soak['rss_start_kb']:,.0f} KiB")
    sess = next((v for k, v in gw.items() if k.startswith("gateway/sessions/1000")), None)
    if sess:
        out(f"1,000 live sessions: the gateway's resident memory {sess['rss_before_kb']:,.0f} KiB before the "
            f"logins, {sess['rss_after_kb']:,.0f} KiB after ({sess['bytes_per_session']:,.0f} bytes a session).")
        out()
    wl = next((v for k, v in gw.items() if k.startswith("gateway/wrong_logins/1000")), None)
    if wl:
        r = wl["attacked_p99_us"] / wl["alone_p99_us"]
        out(f"1,000 wrong logins from the user's own address in {wl['attack_ms']:,.0f} ms "
            f"({wl['answered_401']:.0f} answered 401, {wl['refused_429']:.0f} refused at once with 429) while the "
            f"user's gets go on ({wl['attacked_gets']:.0f} of them, {wl['errors']:.0f} errors): p50 "
            f"{fmt(wl['alone_p50_us'])} µs alone, {fmt(wl['attacked_p50_us'])} µs attacked; p99 "
            f"{fmt(wl['alone_p99_us'])} µs alone, {fmt(wl['attacked_p99_us'])} µs attacked.")
        out()
        target("gateway_attacked", r,
               f"{wl['attacked_p99_us']:.0f} / {wl['alone_p99_us']:.0f} µs; the attacker and the user share the "
               "machine's two CPUs")

# ---------------------------------------------------------------- 9. operations
mon = load("monitor")
cli_path = os.path.join(results, "kepctl.json")
if mon or os.path.exists(cli_path):
    out("## 9. Operations: kepctl's cost per call, and watching the host")
    out()
if os.path.exists(cli_path):
    with open(cli_path) as f:
        hf = {r["command"]: r for r in json.load(f)["results"]}
    true_run = next((r for c, r in hf.items() if c.endswith("true")), None)
    cli = next((r for c, r in hf.items() if "kepctl" in c), None)
    if true_run and cli:
        above = (cli["mean"] - true_run["mean"]) * 1e3
        out("Boot scripts call kepctl hundreds of times, so its whole-process cost counts: one hyperfine run "
            f"(`hyperfine -N`, {cli.get('times') and len(cli['times']) or '?'} runs each after a warm-up) of "
            "`/bin/true` and of `kepctl -c get dhcp host` through kepd to dhcpd. kepctl loads the platform "
            "library, json-c and libc, and neither the library nor the owner's kit.")
        out()
        out("| command | mean ms | median ms | σ ms |")
        out("|---|---|---|---|")
        for r in (true_run, cli):
            shown = r["command"] if r["command"].startswith("/bin/") else re.sub(r"^\S*/", "", r["command"])
            out(f"| `{shown}` | {r['mean'] * 1e3:.3f} | {r['median'] * 1e3:.3f} | {r['stddev'] * 1e3:.3f} |")
        out()
        target("kepctl", above, f"{cli['mean'] * 1e3:.3f} − {true_run['mean'] * 1e3:.3f} ms")
if mon:
    runs = {w: mon.get(f"host/monitor/watchers:{w}") for w in (0, 1, 2)}
    if all(runs.values()):
        out("The host's traffic watched with `kepctl monitor`: a get of the dhcp module's 3-lease table through "
            "the host with nobody watching, with one watcher reading every line, and with one that is stopped "
            "(its lines are dropped and counted). While nobody watches a request costs one atomic load more.")
        out()
        out("| watchers | p50 µs | p99 µs | / nobody watching, p50 |")
        out("|---|---|---|---|")
        labels = {0: "nobody", 1: "one, reading", 2: "one, stopped"}
        for w, run in runs.items():
            out(f"| {labels[w]} | {fmt(run['p50_us'])} | {fmt(run['p99_us'])} | "
                f"{run['p50_us'] / runs[0]['p50_us']:.2f} |")
        out()
        target("monitor", runs[2]["p50_us"] / runs[0]["p50_us"],
               f"{runs[2]['p50_us']:.1f} / {runs[0]['p50_us']:.1f} µs")

# ---------------------------------------------------------------- 10. change sets
cs = load("changeset")
if cs:
    plain, applied, undone, floor = (cs.get(f"changeset/{n}/real_time") for n in ("plain", "apply", "undone", "floor"))
    if plain and applied and undone and floor:
        out("## 10. Change sets")
        out()
        out("kepd with the example owners of three modules (dhcpd with a list table of 1,000 static leases, sysd, "
            "ntpd), files on disk. The change set sets a lease of the large table, the DHCP pool, the time zone "
            "and the NTP settings, each a section. Sent one by one without a change set; applied as one (the "
            "host reads the four places, writes and flushes its record, applies, removes the record); the same "
            "with a fifth request the owner refuses (applied, then every module put back). The floor reads each "
            "table the change set names whole through the host and writes each once. The snapshot is applied "
            "minus plain, the rollback undone minus applied.")
        out()
        out("| | ms |")
        out("|---|---|")
        snap = (us(applied) - us(plain)) / 1000
        back = (us(undone) - us(applied)) / 1000
        for label, v in (("the four requests, plain", us(plain) / 1000), ("as one change set", us(applied) / 1000),
                         ("with a failing fifth, undone", us(undone) / 1000), ("snapshot", snap),
                         ("rollback", back), ("floor: the tables read and written once", us(floor) / 1000)):
            out(f"| {label} | {fmt(v, 2)} |")
        out()
        target("changeset", (snap + back) / (us(floor) / 1000),
               f"({snap:.2f} + {back:.2f}) / {us(floor) / 1000:.2f} ms; the four requests plain {us(plain) / 1000:.2f} ms")

# ---------------------------------------------------------------- 11. the fleet
fl = load("fleet")
if fl:
    def fleet_run(prefix):
        """Runs of a kind by device count, e.g. fleet/agents/get -> {1000: run}."""
        found = {}
        for name, run in fl.items():
            mt = re.match(re.escape(prefix) + r"/devices:(\d+)(/|$)", name)
            if mt:
                found[int(mt.group(1))] = run
        return found

    def first(prefix):
        """The run of that name, whatever its iterations."""
        return next((v for k, v in fl.items() if k == prefix or k.startswith(prefix + "/")), None)

    floor, floor_kf, agents = fleet_run("fleet/floor/get"), fleet_run("fleet/floor_kepfleet/get"), fleet_run("fleet/agents/get")
    out("## 11. The fleet over MQTT")
    out()
    with open(os.path.join(results, "fleet.json")) as f:
        ran = json.load(f).get("context", {}).get("date", "?")
    out(f"Measured {ran}, in a run of its own (`kep_bench_fleet`).")
    out()
    out("One Mosquitto broker on loopback (TLS 1.2+, a password per client, the ACL of docs/FLEET.md, QoS 1) made by "
        "`tools/fleet.sh`, serving three kinds of device in the same run. The agents: simulated devices, each its "
        "own kepd and `kepagent --simulate` owning the ntp module (d0001 runs as a real device: kepd, ntpd and an "
        "agent over the direct route). The floor: `kep_fleet_floor`, a libmosquitto program of the project's own "
        "whose every device is one connection with its own password under the same ACL, answering each request "
        "with fixed bytes of the agents' answer size on the request's response topic; asked by a bare libmosquitto "
        "controller publishing every request at once, with the agents stopped (SIGSTOP) so that their idle work "
        "does not weigh on the floor. The same floor asked by kepfleet's controller shows the controller's own "
        "share. The agents are asked by kepfleet's controller with every request in flight at once (`-k` = the "
        "device count): a get of the ntp server table. Each row is the worst of 5 calls for the last answer, "
        "and p50/p99 over all of them, after one untimed warm-up call on each side.")
    out()
    out("| devices | floor: last answer ms | p50 / p99 ms | kepfleet on the floor: last ms | agents: last answer ms "
        "| p50 / p99 ms | messages/s through the broker | no answer | agents / floor |")
    out("|---|---|---|---|---|---|---|---|---|")
    for n in sorted(set(floor) | set(agents)):
        f, k, a = floor.get(n), floor_kf.get(n), agents.get(n)
        cells = [f"{n:,}"]
        cells += [fmt(f["last_ms"]), f"{fmt(f['p50_ms'])} / {fmt(f['p99_ms'])}"] if f else ["–", "–"]
        cells += [fmt(k["last_ms"]) if k else "–"]
        if a:
            cells += [fmt(a["last_ms"]), f"{fmt(a['p50_ms'])} / {fmt(a['p99_ms'])}",
                      f"{a['messages_per_s']:,.0f}", f"{a['no_answer'] + a['errors']:.0f}"]
        else:
            cells += ["not run", "–", f"{f['messages_per_s']:,.0f} (floor)" if f else "–", "–"]
        cells += [f"{a['last_ms'] / f['last_ms']:.2f}" if a and f else "–"]
        out("| " + " | ".join(cells) + " |")
        if a and f:
            target("fleet_get", a["last_ms"] / f["last_ms"],
                   f"{a['last_ms']:.0f} / {f['last_ms']:.0f} ms; p50 {a['p50_ms']:.0f} / {f['p50_ms']:.0f} ms; "
                   f"{a['no_answer']:.0f} unanswered, {a['errors']:.0f} errors", f"{n:,}")
    out()
    per_process = fleet_run("fleet/floor_per_process/get")
    if per_process:
        out("The same floor with a process per device, as the simulated devices are (`--per-process 1`), asked the "
            "same way: the rest of the gap is what this machine charges for waking a thousand processes where the "
            "floor wakes one. Each side runs in a session of its own (the broker, the devices, the controller), so "
            "that the kernel shares the CPU between the sides before it shares it between their processes, as "
            "machines of their own would.")
        out()
        out("| devices | floor, a process per device: last answer ms | p50 / p99 ms | agents / it |")
        out("|---|---|---|---|")
        for n, p in sorted(per_process.items()):
            a = agents.get(n)
            out(f"| {n:,} | {fmt(p['last_ms'])} | {fmt(p['p50_ms'])} / {fmt(p['p99_ms'])} | "
                f"{a['last_ms'] / p['last_ms']:.2f} |" if a else f"| {n:,} | {fmt(p['last_ms'])} | – | – |")
        out()
    biggest = max(agents) if agents else None
    if biggest and biggest < max(floor, default=0):
        out(f"The agents were run up to {biggest:,} devices; see \"The fleet\" under \"Where the time goes\" for "
            "where a larger fleet on this machine breaks.")
        out()
    st = fleet_run("fleet/agents/set")
    for n, run in st.items():
        out(f"A set of the ntp settings to all {n:,} devices (3 calls, all in flight): {fmt(us(run) / 1000)} ms "
            f"a call; {run['errors']:.0f} errors, {run['no_answer']:.0f} unanswered; afterwards "
            f"{run['files_right']:,.0f} of {n:,} devices' files held the last value.")
        out()
        target("fleet_set", n - run["files_right"], f"{run['files_right']:.0f} of {n:,} files right", f"{n:,}")
    rt, direct = first("fleet/round_trip"), first("fleet/direct_route")
    if rt and direct:
        out("One device at a time, every other device stopped: kepfleet's controller asks a floor device and "
            "d0001, whose agent serves the get over the direct route, in turn, 1,000 times each. The agent's "
            "share of the round trip is the difference of the two medians (the median of each pair's difference "
            "is shown too); beside it, the same get over the direct route alone, from a process of the device's "
            "user.")
        out()
        out("| | p50 µs | p99 µs |")
        out("|---|---|---|")
        out(f"| round trip, floor device | {fmt(rt['floor_p50_us'])} | {fmt(rt['floor_p99_us'])} |")
        out(f"| round trip, agent (d0001) | {fmt(rt['agent_p50_us'])} | {fmt(rt['agent_p99_us'])} |")
        out(f"| direct route alone | {fmt(direct['p50_us'])} | {fmt(direct['p99_us'])} |")
        share = rt["agent_p50_us"] - rt["floor_p50_us"]
        out(f"| the agent's share: agent − floor | {fmt(share)} | |")
        out(f"| the same, the median of the pairs' differences | {fmt(rt['share_p50_us'])} | |")
        out()
        target("fleet_share", share / direct["p50_us"],
               f"({rt['agent_p50_us']:.0f} − {rt['floor_p50_us']:.0f}) / {direct['p50_us']:.1f} µs; the median of "
               f"the pairs' differences {rt['share_p50_us']:.0f} µs")
    windowed = {int(re.search(r"window:(\d+)", k).group(1)): v for k, v in fl.items()
                if k.startswith("fleet/floor/connect/")}
    whole = first("fleet/floor/connect_all")
    if whole:
        mt = re.search(r"devices:(\d+)", next(k for k in fl if k.startswith("fleet/floor/connect_all/")))
        out(f"The floor's {int(mt.group(1)):,} devices connecting 100 at a time: {fmt(us(whole) / 1000)} ms, "
            f"{whole['failed']:.0f} failed.")
        out()
    rs = fleet_run("fleet/agents/broker_restart")
    if windowed:
        out("| 1,000 floor devices connecting | ms | connections | failed |")
        out("|---|---|---|---|")
        for w in sorted(windowed):
            run = windowed[w]
            out(f"| {w:,} at a time | {fmt(us(run) / 1000)} | {run['connected'] + run['failed']:,.0f} | "
                f"{run['failed']:.0f} |")
        pp = first("fleet/floor_per_process/connect")
        if pp:
            out(f"| all at once, a process each (each process started then, its TLS set up) | {fmt(us(pp) / 1000)} | {pp['connected'] + pp['failed']:,.0f} | "
                f"{pp['failed']:.0f} |")
        out()
    for n, run in rs.items():
        out(f"The broker stopped (SIGTERM) and started again under {n:,} agents. It listened "
            f"{fmt(run['listen_ms'])} ms after it was started; from then, all agents said \"online\" again after "
            f"{fmt(run['online_ms'])} ms and all had answered a get, each sent as soon as its agent said "
            f"\"online\", after {fmt(run['answered_ms'])} ms "
            f"({run['no_answer']:.0f} unanswered); {run['failed_connections']:.0f} connection attempts "
            "failed once the broker listened (the agents' logs and the broker's).")
        out()
        base = windowed.get(100)
        if base:
            target("fleet_restart", run["answered_ms"] / (us(base) / 1000),
                   f"{run['answered_ms']:.0f} / {us(base) / 1000:.0f} ms", f"{n:,}")
        target("fleet_restart_failed", run["failed_connections"], "", f"{n:,}")
    mem = first("fleet/memory")
    if mem:
        dev = mem["agent_Private_Dirty_kB"] + mem["kepd_Private_Dirty_kB"]
        out("Memory of a simulated device, the mean over the devices (`/proc/PID/smaps_rollup`, KiB):")
        out()
        out("| process | RSS | PSS | private dirty |")
        out("|---|---|---|---|")
        for what in ("agent", "kepd"):
            out(f"| {'kepagent --simulate' if what == 'agent' else 'kepd'} | {fmt(mem[what + '_Rss_kB'], 0)} | "
                f"{fmt(mem[what + '_Pss_kB'], 0)} | {fmt(mem[what + '_Private_Dirty_kB'], 0)} |")
        out(f"| a device | {fmt(mem['agent_Rss_kB'] + mem['kepd_Rss_kB'], 0)} | "
            f"{fmt(mem['agent_Pss_kB'] + mem['kepd_Pss_kB'], 0)} | {fmt(dev, 0)} |")
        out()
    idle = first("fleet/idle_cpu")
    if idle:
        per = idle["agent_ms_per_s"] + idle["kepd_ms_per_s"]
        out(f"Idle, over 10 s with nobody asking: {per:.2f} ms of CPU a second per device (kepagent with the kit "
            f"{idle['agent_ms_per_s']:.2f}, kepd {idle['kepd_ms_per_s']:.2f}), so {per:.2f} CPUs per 1,000 devices.")
        out()

# ---------------------------------------------------------------- summary and notes
head = ["## Targets", "", "| target | measured | limit | result | detail |", "|---|---|---|---|---|"]
for name, measured, limit, met, detail in summary:
    head.append(f"| {name} | {measured} | {limit} | {met} | {detail} |")
head.append("")
lines[lines.index("## 1. End-to-end request latency"):lines.index("## 1. End-to-end request latency")] = head

if os.path.exists(notes_path):
    with open(notes_path) as f:
        lines.append(f.read().rstrip("\n"))

with open(out_path, "w") as f:
    f.write("\n".join(lines) + "\n")

for name, measured, limit, met, _ in summary:
    print(f"{met:6}  {name}: {measured} (limit {limit})")
