#!/usr/bin/env python3
"""What the libraries may look like to those who link them.

    check_library.py LIBRUK.SO LIBRUK.A [exports|dependencies|size|steps|tested]...

exports: the shared object exports exactly the public operations, and the version map says the same. dependencies:
it needs libc alone and bears its soname. size: below 200 KiB when stripped. steps: every operation and inner step
with a given name can be linked from the archive. tested: every public operation is in the lists of those whose calls
fail and of those that run against each other. Without a word all of them. Status 1 when one does not hold.
"""

import os
import re
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
STRIPPED_LIMIT = 200 * 1024

EXPORTS = """
ruk_init ruk__init ruk_getticks ruk_device_handle ruk__assertion_failed
ruk_open ruk_open_if ruk_open_by_perm_mac
ruk_device_get_attrs ruk_device_set_attrs ruk_device_enable ruk_shutdown ruk_close
ruk_bind ruk_bind_addr ruk_getaddress ruk_filter_add ruk_filter_del ruk_set_filter_mode ruk_unbind
ruk_mcast_join ruk_mcast_join_source ruk_mcast_leave ruk_mcast_leave_source
ruk_mcast_block_source ruk_mcast_unblock_source
ruk_recvfrom ruk_raw_recv ruk_raw_recv_nb ruk_raw_recv_peek ruk__eventq_process_uevt ruk_dump_stats
ruk_raw_send ruk__piocopy_test ruk_send ruk_sendto ruk__post_soft_data ruk__resolve_mac
ruk_send_connect ruk_send_disconnect
tov_cycles_counter_init tov_cycles_per_second
tov_getifaddrs tov_freeifaddrs tov_ifaddr_to_macaddr tov_get_vlan_tag tov_select
""".split()

# By source: what the archive offers besides the exports.
STEPS = """
show_banner
map_region unmap_region prefault_mapped_kmem initialize_queues sendbuf_init enable_endpoint free_queues
ruk__ep_lock ruk__ep_unlock ruk__ep_rx_lock ruk__ep_rx_unlock
krel_verify_ipsubnet iface_to_interface_addr open_tov_endpoint ruk__open_soft
arista_init arista_fini
ruk__get_tag_entry ruk__put_tag_entry ruk__delay_put_tag_entry ruk__sockbind
ruk__bind ruk__filter_op ruk__do_unbind ruk__unbind_all entry_release_uni entry_release_multi
ruk__eventq_first ruk__eventq_advance ruk__eventq_count
_uevt_length _eventq_crcbyte _eventq_wait_completion _eventq_clear
arista_check_kf_pkt ruk__clk_calc_pkt_timestamps
ruk__recvpacket handle_ruk_uevt
ruk__clk_ticks_to_timestamp oxel_clksync_nticks_update oxel_timesync_ticks2nsecs oxel_clksync_copy_nticks_params
oxel_clksync_convert_nsecs __oxel_clksync_convert_nsecs
arista_get_kf_pkt ruk__arista_calc_pkt_timestamps arista_retrieve_frame_timestamp arista_compute_timestamp
arista_need_new_keyframe
ruk__try_send_completion ruk__sendhandle_init ruk__arp_init ruk__peer_addr_lookup ruk__do_send_connect
tov_init tov_init_fops tov_open tov_open_any_board tov_ioctl __tov_ioctl tov_close __tov_close tov_mmap tov_munmap
tov_socket tov_bind tov_setsockopt tov_getsockopt tov_getsockname tov_sendto tov_closesocket
tov_get_cycles tov_seconds_per_cycle tov_host_nsecs cmp_uint64
tov_macaddr_to_nic_id tov_nic_id_to_macaddr tov_nic_id_to_str tov_get_nicinfo tov_free_nicinfo
tov_mpool_init tov_mpool_alloc tov_mpool_free tov_mpool_isempty tov_mpool_fini
tov_get_macaddr
tov_piocopy_csum wcsum_copy_odd
oxel_raw_open_endpoint oxel_raw_close_endpoint oxel_raw_handle oxel_raw_send oxel_raw_next_event
""".split()

# Lists of all public operations in the tests, and those that need not be there: it only prints, and ends the process.
OPERATION_LISTS = ("tests/fault/operations.cpp", "tests/threads/pairs_test.cpp")
NOT_LISTED = {"ruk__assertion_failed"}

# Process-wide state with a given name.
GLOBALS = """
__ruk_debug __ruk_verbose ruk__api_version ruk__init_ext banner show_once
_tov_fops init_done cycles_per_second seconds_per_cycle
""".split()


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def dynamic_exports(library):
    """Names that the shared object defines for others, its version node's own name left out."""
    names = set()
    for line in output("nm", "-D", "--defined-only", library).splitlines():
        kind, name = line.split()[-2:]
        if kind != "A":
            names.add(name.split("@")[0])
    return names


def map_exports():
    with open(os.path.join(ROOT, "libruk", "libruk.map"), encoding="utf-8") as file:
        text = file.read()
    globals_ = re.search(r"global:(.*?)local:", text, re.DOTALL).group(1)
    return {name for name in re.split(r"[;\s]+", globals_) if name}


def difference(what, wanted, have):
    faults = [f"{what} lacks {name}" for name in sorted(wanted - have)]
    return faults + [f"{what} has {name} besides" for name in sorted(have - wanted)]


def check_exports(shared, _archive):
    wanted = set(EXPORTS)
    return difference("libruk.so", wanted, dynamic_exports(shared)) + difference("libruk.map", wanted, map_exports())


def check_dependencies(shared, _archive):
    text = output("readelf", "-d", shared)
    needed = re.findall(r"\(NEEDED\).*\[(.*?)\]", text)
    soname = re.findall(r"\(SONAME\).*\[(.*?)\]", text)
    faults = [f"needs {name}" for name in needed if name != "libc.so.6" and not name.startswith("ld-linux")]
    if "libc.so.6" not in needed:
        faults.append("does not name libc.so.6: is it linked at all?")
    if soname != ["libruk.so.0"]:
        faults.append(f"soname is {soname}")
    return faults


def check_size(shared, _archive):
    with tempfile.TemporaryDirectory() as directory:
        stripped = os.path.join(directory, "libruk.so")
        subprocess.run(["strip", "-o", stripped, shared], check=True)
        size = os.path.getsize(stripped)
    print(f"size: {size} bytes stripped, limit {STRIPPED_LIMIT}")
    return [] if size < STRIPPED_LIMIT else [f"{size} bytes stripped"]


def check_steps(_shared, archive):
    code, data = set(), set()
    for line in output("nm", "--defined-only", archive).splitlines():
        fields = line.split()
        if len(fields) == 3 and fields[1] in "TW":
            code.add(fields[2])
        elif len(fields) == 3 and fields[1] in "BDRVSG":
            data.add(fields[2])
    return [f"libruk.a lacks {name}" for name in EXPORTS + STEPS if name not in code] + [
        f"libruk.a lacks the variable {name}" for name in GLOBALS if name not in data]


def named_in_strings(source):
    """Words of a source's strings: what a list calls its entries, not what it calls."""
    return set(re.findall(r"\w+", " ".join(re.findall(r'"([^"\n]*)"', source))))


def check_tested(_shared, _archive):
    faults = []
    for path in OPERATION_LISTS:
        with open(os.path.join(ROOT, path), encoding="utf-8") as file:
            named = named_in_strings(file.read())
        faults += [f"{path} lacks {name}" for name in EXPORTS if name not in named | NOT_LISTED]
    return faults


CHECKS = {"exports": check_exports, "dependencies": check_dependencies, "size": check_size, "steps": check_steps,
          "tested": check_tested}


def main(arguments):
    if len(arguments) < 2 or any(name not in CHECKS for name in arguments[2:]):
        print(__doc__, file=sys.stderr)
        return 2
    status = 0
    for name in arguments[2:] or CHECKS:
        faults = CHECKS[name](arguments[0], arguments[1])
        print(f"{name}: {'FAILED' if faults else 'ok'}")
        for fault in faults:
            print(f"  {fault}")
            status = 1
    return status


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
