#!/usr/bin/python3
"""A minimal bleak client: the peer PlenkKit is measured against.

Finds the scale by name, connects, subscribes to the weight characteristic and
records, for each notification, the sequence number it carries (a binary weight
packet whose mantissa is the number) and the CLOCK_MONOTONIC time the callback
ran. After the warm-up it measures its own CPU time (user + system, every
thread) over the window and writes "cpu_seconds notifications" as the last line.
"""
import argparse
import asyncio
import resource
import time

from bleak import BleakClient, BleakScanner

DATA_CHARACTERISTIC = "0000ef81-0000-1000-8000-00805f9b34fb"


def cpu_seconds():
    usage = resource.getrusage(resource.RUSAGE_SELF)
    return usage.ru_utime + usage.ru_stime


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
        start = cpu_seconds()
        await asyncio.sleep(args.duration)
        measuring = False
        used = cpu_seconds() - start
        await client.stop_notify(DATA_CHARACTERISTIC)
    with open(args.out, "w", encoding="ascii") as out:
        for sequence, at in received:
            out.write(f"{sequence} {at}\n")
        out.write(f"# {used:.6f} {len(received)}\n")


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
