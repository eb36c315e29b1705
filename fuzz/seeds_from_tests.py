#!/usr/bin/env python3
"""Writes the seed corpora of the netlink targets from the kernel captures
the unit tests hold (hex string constants and byte arrays), so that the
seeds are what a real kernel sent and follow the tests when they change.
Run from anywhere after a capture is added:  fuzz/seeds_from_tests.py"""
import pathlib
import re

root = pathlib.Path(__file__).resolve().parent.parent
tests = root / "tests" / "linux"
corpus = root / "fuzz" / "corpus"

HEX = re.compile(r'constexpr std::string_view (k\w+) =\s*((?:"[0-9a-f]*"\s*)+);')
ARRAY = re.compile(r'const Bytes (k\w+) = \{([^}]*)\};')


def hex_constants(path):
    for name, body in HEX.findall(path.read_text()):
        yield name, bytes.fromhex("".join(re.findall(r'"([0-9a-f]*)"', body)))


def byte_arrays(path):
    for name, body in ARRAY.findall(path.read_text()):
        yield name, bytes(int(v, 16) for v in re.findall(r"0x[0-9a-fA-F]+", body))


def write(target, seeds):
    out = corpus / target
    out.mkdir(parents=True, exist_ok=True)
    for name, data in seeds:
        (out / name).write_bytes(data)


rtnl = dict(hex_constants(tests / "NetlinkDigestTest.cc"))
# One socket read may carry several messages.
rtnl["kBatchFdbAddr"] = rtnl["kFdbLearned"] + rtnl["kAddrPrimary"]
write("fuzz_rtnl_digest", rtnl.items())
write("fuzz_nflog_digest", hex_constants(tests / "NflogDigestTest.cc"))
nft = dict(byte_arrays(tests / "NftProgrammerNetlinkTest.cc"))
nft["kBatchDelete"] = nft["kDelCounter"] + nft["kDelChain"] + nft["kDelTable"] + nft["kNewGen"]
write("fuzz_nft_digest", nft.items())
