#!/usr/bin/python3
"""A minimal bleak client: the peer PlenkKit is measured against.

Finds the scale by name, connects, subscribes to the weight characteristic and
records, for each notification, the sequence number it carries (a binary weight
packet whose mantissa is the number) and the CLOCK_MONOTONIC time the callback
ran. After the warm-up it measures its own CPU time (user + system, every
thread) and the bus daemon's (BENCH_BUS_PID) over the window and writes
"# cpu_seconds notifications bus_cpu_seconds" as the last line.
"""
import argparse
import asyncio
import os
import resource
import time

from bleak import BleakClient, BleakScanner

DATA_CHARACTERISTIC = "0000ef81-0000-1000-8000-00805f9b34fb"


def cpu_seconds():
    usage = resource.getrusage(resource.RUSAGE_SELF)
    return usage.ru_utime + usage.ru_stime


def bus_cpu_seconds():
    """CPU seconds of the bus daemon named by BENCH_BUS_PID, 0 without one."""
    pid = os.environ.get("BENCH_BUS_PID")
    if not pid:
        return 0.0
    with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def sequence_of(packet):
    # Bytes 1..3: the little-endian 24-bit mantissa (exponent 0 for integers).
    return int.from_bytes(bytes(packet[1:4]), "little", signed=True)


async def run(args):
    device = await BleakScanner.find_device_by_filter(
        lambda d, ad: (ad.local_name or d.name or "").startswith(args.name), timeout=args.timeout)
    if device is None:
        raise SystemExit("bleak_client: no scale named " + args.name)
    received = []
    measuring = False

    def on_notification(_sender, data):
        if measuring:
            received.append((sequence_of(data), time.monotonic_ns()))

    async with BleakClient(device) as client:
        await client.start_notify(DATA_CHARACTERISTIC, on_notification)
        await asyncio.sleep(args.warmup)
        measuring = True
        start, bus_start = cpu_seconds(), bus_cpu_seconds()
        await asyncio.sleep(args.duration)
        measuring = False
        used, bus_used = cpu_seconds() - start, bus_cpu_seconds() - bus_start
        await client.stop_notify(DATA_CHARACTERISTIC)
    with open(args.out, "w", encoding="ascii") as out:
        for sequence, at in received:
            out.write(f"{sequence} {at}\n")
        out.write(f"# {used:.6f} {len(received)} {bus_used:.6f}\n")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--name", default="Plenk")
    parser.add_argument("--duration", type=float, default=10)
    parser.add_argument("--warmup", type=float, default=1)
    parser.add_argument("--timeout", type=float, default=10)
    parser.add_argument("--out", required=True)
    asyncio.run(run(parser.parse_args()))


if __name__ == "__main__":
    main()
