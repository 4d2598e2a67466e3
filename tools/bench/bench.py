"""Measures the driver and prints tables; called by scripts/bench.

bench.py BIN_DIR OUT_DIR [--quick] [--write DOCUMENT] [--compare] [SECTION...]: sections are cost, growth, peers, line,
adapter, gap, reaction, panel, gateway and table. Writes OUT_DIR/results.json and plots of it. With --write it also writes the tables
between their marks in the document, the figures beside it, and copies the plots to the document's folder. With
--compare it prints the figures that are worse than those of the page.
"""

import argparse
import json
import os

import adapter
import clients
import compare
import cost
import gap
import gateway
import line
import live_table
import measure
import panel
import report

ON_A_LINE = {"peers": line.peers, "line": line.line, "adapter": adapter.adapter, "gap": gap.gap,
             "reaction": line.reaction, "panel": panel.panel, "gateway": gateway.gateway, "table": live_table.live_table}
PAGE = "docs/performance.md"
SECTIONS = cost.SECTIONS + list(ON_A_LINE)


def arguments():
    parser = argparse.ArgumentParser(prog="bench", description="Measures the driver and compares it with other clients.")
    parser.add_argument("bin_dir")
    parser.add_argument("out_dir")
    parser.add_argument("--quick", action="store_true", help="fewer repetitions and sizes, for a trial")
    parser.add_argument("--write", metavar="DOCUMENT", help="write the tables between the marks in the document")
    parser.add_argument("--compare", action="store_true", help=f"print what is worse than the figures of {PAGE}")
    parser.add_argument("--check", action="store_true", help="only check the arguments, before a build")
    parser.add_argument("sections", nargs="*", metavar="SECTION", help=", ".join(SECTIONS) + " (default all)")
    options = parser.parse_intermixed_args()
    wanted = options.sections or SECTIONS
    for name in wanted:
        if name not in SECTIONS:
            parser.error(f"unknown section \"{name}\" (there are: {', '.join(SECTIONS)})")
    if options.write and not os.path.isfile(options.write):
        parser.error(f"{options.write}: there is no such document")
    if options.compare and not report.page(PAGE):
        parser.error(f"{report.figures_of(PAGE)} holds no figures to compare with (make them with --write {PAGE})")
    if options.write and set(wanted) != set(SECTIONS):
        old = report.page(options.write).get("machine")
        other = compare.differences(old, report.machine()) if old else []
        if other:
            parser.error(f"{options.write} has the figures of another machine; write all sections, not some ({other[0]})")
    return options, wanted


def measured_on_a_line(options, wanted):
    """Results by section, ready for JSON."""
    results = {}
    if not any(name in wanted for name in ON_A_LINE):
        return results
    bench = clients.Bench(options.bin_dir, options.out_dir, options.quick)
    with bench.controllers():
        for name, section in ON_A_LINE.items():
            if name in wanted:
                measure.announce(name)
                results[name] = section(bench)
    return results


def main():
    options, wanted = arguments()
    if options.check:
        return
    os.makedirs(options.out_dir, exist_ok=True)
    results = {"machine": report.machine(), "quick": wanted if options.quick else []}
    results.update(cost.run(options.bin_dir, options.out_dir, options.quick, wanted))
    results.update(measured_on_a_line(options, wanted))
    with open(f"{options.out_dir}/results.json", "w", encoding="utf-8") as file:
        json.dump(results, file, indent=1)
    print("\n\n".join("\n".join(text) for text in report.tables(results).values()))
    if options.compare:
        print("\n" + "\n".join(compare.report(report.page(PAGE), results)))
    plots = report.plot(results, options.out_dir)
    if options.write:
        report.write(options.write, results, plots)
    print(f"\nbench: results in {options.out_dir}/results.json")


if __name__ == "__main__":
    main()
