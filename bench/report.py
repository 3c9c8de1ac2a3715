# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Makes a page and plots of what was measured: report.py FOLDER

Reads local.json and results.json in the folder, writes bench.md, growth.svg, peers.svg and systems.svg there.
"""

import json
import pathlib
import statistics
import sys

import matplotlib

matplotlib.use("svg")
matplotlib.rcParams["svg.hashsalt"] = "varnix"  # The same figures give the same file.
from matplotlib import pyplot  # noqa: E402

NAMES = {"varnix": "Varnix", "bare": "bare sockets", "tables": "sockets and tables", "udp": "UDP datagram",
         "redis": "Redis", "mosquitto": "mosquitto", "zeromq": "ZeroMQ", "cyclonedds": "Cyclone DDS"}


def median(runs, figure):
    return statistics.median(run[figure] for run in runs)


def number(value):
    return f"{value:,.0f}" if value >= 100 else f"{value:.3g}"


def table(head, rows):
    lines = ["| " + " | ".join(head) + " |", "|---" + "|--:" * (len(head) - 1) + "|"]
    return "\n".join(lines + ["| " + " | ".join(row) + " |" for row in rows]) + "\n"


def local_table(local):
    times = {run["run_name"].removesuffix("/real_time"): run["real_time"]
             for run in local["benchmarks"] if run["aggregate_name"] == "median"}
    by_watchers = {}
    others = []
    for name, time in times.items():
        job, _, watchers = name.partition("/")
        if watchers.isdigit():
            by_watchers.setdefault(job, []).append(time)
        else:
            others.append([name.replace("/real_time/threads:", ", threads: "), number(time)])
    limits = {job: times[f"LimitSet{job.removeprefix('Set').removesuffix('Silently')}"]
              for job in by_watchers if "Unchanged" not in job}
    rows = [[job, *map(number, taken), f"{taken[-1] / taken[0]:.2f}",
             f"{taken[0] / limits[job]:.2f}" if job in limits else ""] for job, taken in by_watchers.items()]
    return (table(["ns; watchers of other keys:", "0", "10", "1,000", "10,000", "the last to the first",
                   "the first to the limit"], rows) + "\n" + table(["", "ns"], others))


def ratio(runs, limits, figure="ms"):
    """Turn by turn, then the median."""
    return statistics.median(run[figure] / limit[figure] for run, limit in zip(runs, limits))


def jobs_table(results):
    rows = []
    for job, systems in results.items():
        if job in ("machine", "idle", "growth", "group") or job.startswith("latency"):
            continue
        for system, runs in systems.items():
            ratios = [f"{ratio(runs, systems[limit]):.2f}" if limit in systems else "" for limit in ("bare", "tables")]
            rows.append([job, NAMES[system], number(median(runs, "ms")), *ratios, str(len(runs))])
    return table(["Job", "System", "ms", "to bare sockets", "to sockets and tables", "runs"], rows)


def cost_table(results):
    rows = []
    for system, runs in results["fill"].items():
        sides = [side for side in ("writer", "watcher", "broker") if f"{side}_cpu_s" in runs[0]]
        cpu = " + ".join(f"{median(runs, f'{side}_cpu_s'):.2f}" for side in sides)
        memory = " + ".join(f"{median(runs, f'{side}_peak_mib'):.0f}" for side in sides)
        rows.append([NAMES[system], cpu, memory])
    return table(["fill: writer + watcher (+ broker)", "CPU seconds", "peak MiB"], rows)


def latency_table(results):
    rows = []
    for job, systems in results.items():
        if job.startswith("latency"):
            for system, runs in systems.items():
                rows.append([job.removeprefix("latency "), NAMES[system],
                             *(number(median(runs, figure)) for figure in ("p50_us", "p99_us", "max_us"))])
    return table(["One-way latency in microseconds", "System", "p50", "p99", "max"], rows)


def idle_table(results):
    return table(["Idle: a writer and a watcher (and the broker)", "packets a minute", "CPU ms a minute", "MiB"],
                 [[NAMES[system], number(median(runs, "packets_per_minute")),
                   number(median(runs, "cpu_ms_per_minute")), number(median(runs, "resident_mib"))]
                  for system, runs in results["idle"].items()])


def group_table(results):
    return table(["Members of a group, on one machine", "all have a row after s", "all are connected after s",
                  "connections", "threads each", "descriptors each", "MiB each", "CPU ms a minute each",
                  "packets a minute each"],
                 [[str(run["members"]), number(run["row_s"]), number(run["all_s"]), number(run["connections"]),
                   str(run["threads"]), str(run["descriptors"]), number(run["resident_mib"]),
                   number(run["cpu_ms_per_minute"]), number(run["packets_per_minute"])]
                  for run in results["group"]["varnix"]])


def segments_line(results):
    runs = results["snapshot 100000, round trip 20 ms"]["varnix"]
    return (f"A snapshot of 100,000 rows over a link with a round trip of 20 ms takes "
            f"{median(runs, 'segments'):,.0f} TCP segments.\n")


def save(figure, path):
    figure.tight_layout()
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)


def plot_growth(results, path):
    figure, axes = pyplot.subplots(figsize=(6, 3.5))
    for system, runs in results["growth"].items():
        by_rows = {}
        for run in runs:
            by_rows.setdefault(run["rows"], []).append(run["ms"] * 1000 / run["rows"])
        axes.plot(by_rows.keys(), [statistics.median(times) for times in by_rows.values()], marker="o",
                  label=NAMES[system])
    axes.set(xscale="log", ylim=(0, None), xlabel="new rows written at once",
             ylabel="microseconds per row,\nuntil a peer has seen all")
    axes.legend(fontsize="small")
    save(figure, path)


def plot_peers(results, path):
    figure, axes = pyplot.subplots(figsize=(6, 3.5))
    jobs = {job: systems for job, systems in results.items() if job.startswith("fan-out")}
    for system, name in NAMES.items():
        points = [(systems[system][0]["watchers"], median(systems[system], "ms") * 1000 / systems[system][0]["rows"])
                  for systems in jobs.values() if system in systems]
        if points:
            axes.plot(*zip(*points), marker="o", label=name)
    axes.set(xscale="log", yscale="log", xlabel="watching processes", ylabel="microseconds per row,\nuntil all have it")
    axes.legend(fontsize="small")
    save(figure, path)


def plot_systems(results, path):
    jobs = {"200,000 new rows": "fill", "late joiner, 100,000 rows": "snapshot 100000",
            "one row 1,000,000 times": "overwrite"}
    figure, all_axes = pyplot.subplots(1, len(jobs), figsize=(10, 3), sharey=True)
    for axes, (title, job) in zip(all_axes, jobs.items()):
        systems = [system for system in NAMES if all(system in results[each] for each in jobs.values())]
        axes.barh([NAMES[system] for system in systems],
                  [median(results[job][system], "ms") for system in systems],
                  color=["tab:orange" if system == "varnix" else "tab:blue" for system in systems])
        axes.set(xlabel="milliseconds", title=title)
    all_axes[0].invert_yaxis()  # They share it.
    save(figure, path)


def main():
    folder = pathlib.Path(sys.argv[1])
    local = json.loads((folder / "local.json").read_text())
    results = json.loads((folder / "results.json").read_text())
    machine = results["machine"]
    versions = ", ".join(f"{package} {version}" for package, version in machine["versions"].items())
    page = "\n".join([
        "# Benchmarks\n",
        f"{machine['date']}, {machine['processor']}, {machine['cores']} cores, {machine['memory_gib']} GiB, "
        f"{machine['kernel']}, {machine['compiler']}; {versions}. {machine['minutes']} minutes. Medians.\n",
        local_table(local), jobs_table(results), cost_table(results), latency_table(results), segments_line(results),
        idle_table(results), group_table(results)])
    (folder / "bench.md").write_text(page)
    plot_growth(results, folder / "growth.svg")
    plot_peers(results, folder / "peers.svg")
    plot_systems(results, folder / "systems.svg")


if __name__ == "__main__":
    main()
