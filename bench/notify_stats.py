#!/usr/bin/python3
"""Joins a client's receive log with the fake bluetoothd's emission stamps.

Usage: notify_stats.py STAMPS RECEIVED LABEL RATE
Prints one Markdown table row: label, rate, notifications, p50/p99/max latency
(emission to host callback, µs), client CPU per notification (µs), the bus
daemon's CPU per notification, and how many were lost or repeated.
"""
import statistics
import sys


def read_pairs(path):
    pairs, summary = [], None
    with open(path, encoding="ascii") as lines:
        for line in lines:
            if line.startswith("#"):
                summary = line[1:].split()
            elif line.strip():
                sequence, at = line.split()
                pairs.append((int(sequence), int(at)))
    return pairs, summary


def percentile(values, fraction):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(fraction * len(ordered)))]


def main():
    stamps_path, received_path, label, rate = sys.argv[1:5]
    emitted = dict(read_pairs(stamps_path)[0])
    received, summary = read_pairs(received_path)
    cpu, count, bus_cpu = float(summary[0]), int(summary[1]), float(summary[2])
    latencies = [(at - emitted[seq]) / 1000.0 for seq, at in received if seq in emitted]
    sequences = [seq for seq, _ in received]
    repeated = len(sequences) - len(set(sequences))
    lost = (max(sequences) - min(sequences) + 1 - len(set(sequences))) if sequences else 0
    print(f"| {label} | {rate} | {count} | {statistics.median(latencies):.0f} | "
          f"{percentile(latencies, 0.99):.0f} | {max(latencies):.0f} | "
          f"{cpu / count * 1e6:.1f} | {bus_cpu / count * 1e6:.1f} | {lost}/{repeated} |")


if __name__ == "__main__":
    main()
