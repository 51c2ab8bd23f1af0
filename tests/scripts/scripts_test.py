#!/usr/bin/env python3
"""The scripts that judge test results, on results that ctest itself wrote: a skipped test is never a passed one, and
what did not run is a failure."""

import contextlib
import io
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(ROOT, "scripts"))
import behaviours  # noqa: E402
import check_library  # noqa: E402
import check_style  # noqa: E402
import sum_results  # noqa: E402

PROJECT = """
cmake_minimum_required(VERSION 3.25)
project(sample LANGUAGES NONE)
enable_testing()
function(sample name)
  add_test(NAME ${name} COMMAND ${ARGN})
  set_tests_properties(${name} PROPERTIES SKIP_REGULAR_EXPRESSION "\\\\[  SKIPPED \\\\]")
endfunction()
sample(Frame.Arrives_Passes true)
sample(Frame.Lost_Fails false)
sample(Lab.NoNamespaces_Skips printf "[ RUN      ] Lab.NoNamespaces_Skips\\nlab.cpp:7: Skipped\\nno network namespaces here\\n\\n[  SKIPPED ] Lab.NoNamespaces_Skips (0 ms)\\n")
sample(Frame.Absent_DoesNotRun ${CMAKE_BINARY_DIR}/there_is_no_such_program)
sample(Sizes/Frame.AllSizes_Pass/0 true)
sample(Sizes/Frame.AllSizes_Pass/1 true)
sample(Sizes/Frame.OneSize_Fails/0 true)
sample(Sizes/Frame.OneSize_Fails/1 false)
"""


class Results(unittest.TestCase):
    """One run of ctest for all tests below."""

    @classmethod
    def setUpClass(cls):
        cls.directory = tempfile.TemporaryDirectory()
        source = cls.directory.name
        with open(os.path.join(source, "CMakeLists.txt"), "w", encoding="utf-8") as file:
            file.write(PROJECT)
        build = os.path.join(source, "build")
        cls.results = os.path.join(source, "results.xml")
        subprocess.run(["cmake", "-G", "Ninja", "-S", source, "-B", build], check=True, capture_output=True)
        subprocess.run(["ctest", "--test-dir", build, "--output-junit", cls.results], capture_output=True)

    @classmethod
    def tearDownClass(cls):
        cls.directory.cleanup()

    def sum(self, *arguments):
        """Status and lines of sum_results.py."""
        output = io.StringIO()
        with contextlib.redirect_stdout(output):
            status = sum_results.main(arguments)
        return status, output.getvalue().splitlines()

    def path(self, name, text):
        path = os.path.join(self.directory.name, name)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        return path

    def test_each_outcome_is_told_apart(self):
        outcomes = {name: result for name, result, _ in sum_results.read_results(self.results)}
        self.assertEqual("passed", outcomes["Frame.Arrives_Passes"])
        self.assertEqual("failed", outcomes["Frame.Lost_Fails"])
        self.assertEqual("skipped", outcomes["Lab.NoNamespaces_Skips"])
        self.assertEqual("failed", outcomes["Frame.Absent_DoesNotRun"])
        self.assertEqual(8, len(outcomes))

    def test_last_line_adds_up_and_skips_are_named_with_their_reason(self):
        status, lines = self.sum(f"64={self.results}")
        self.assertEqual(1, status)
        self.assertEqual("4 passed, 3 failed, 1 skipped", lines[-1])
        self.assertIn("SKIPPED  64: Lab.NoNamespaces_Skips: no network namespaces here", lines)

    def test_two_runs_are_added(self):
        _, lines = self.sum(f"64={self.results}", f"32={self.results}")
        self.assertEqual("8 passed, 6 failed, 2 skipped", lines[-1])

    def test_passed_tests_alone_are_success(self):
        good = self.path("good.xml", '<testsuite><testcase name="A.B" status="run"/></testsuite>')
        self.assertEqual((0, "1 passed, 0 failed"), (lambda s, l: (s, l[-1]))(*self.sum(f"64={good}")))

    def test_skips_alone_are_no_success(self):
        path = self.path("skips.xml", '<testsuite><testcase name="A.B" status="notrun">'
                                      '<skipped message="SKIP_REGULAR_EXPRESSION_MATCHED"/></testcase></testsuite>')
        status, lines = self.sum(f"64={path}")
        self.assertEqual((1, "0 passed, 0 failed, 1 skipped"), (status, lines[-1]))

    def test_gtest_skip_that_ctest_took_for_passed_is_skipped(self):
        path = self.path("missed.xml", '<testsuite><testcase name="A.B" status="run"><system-out>'
                                       "[  SKIPPED ] A.B (0 ms)\n</system-out></testcase></testsuite>")
        self.assertEqual("0 passed, 0 failed, 1 skipped", self.sum(f"64={path}")[1][-1])

    def test_suite_whose_set_up_failed_is_a_failure_though_its_tests_were_skipped(self):
        path = self.path("suite.xml", '<testsuite><testcase name="A.B" status="notrun">'
                                      '<skipped message="SKIP_REGULAR_EXPRESSION_MATCHED"/><system-out>'
                                      "[  SKIPPED ] A.B (0 ms)\n[  PASSED  ] 0 tests.\n"
                                      "[  FAILED  ] A: SetUpTestSuite or TearDownTestSuite\n\n 1 FAILED TEST SUITE\n"
                                      "</system-out></testcase></testsuite>")
        self.assertEqual((1, "0 passed, 1 failed"), (lambda s, l: (s, l[-1]))(*self.sum(f"64={path}")))

    def test_missing_and_empty_results_are_failures(self):
        empty = self.path("empty.xml", "<testsuite></testsuite>")
        status, lines = self.sum("64=/nonexistent.xml", f"32={empty}")
        self.assertEqual((1, "0 passed, 2 failed"), (status, lines[-1]))

    def test_broken_run_without_a_failed_test_is_a_failure(self):
        good = self.path("good2.xml", '<testsuite><testcase name="A.B" status="run"/></testsuite>')
        status, lines = self.sum("--broken", "64", f"64={good}")
        self.assertEqual((1, "1 passed, 1 failed"), (status, lines[-1]))

    def behaviours(self, listed, current=True, refused=False):
        """Status and output of the check of a list against the results."""
        with tempfile.TemporaryDirectory() as root:
            os.makedirs(os.path.join(root, "tests", "behaviours.d"))
            with open(os.path.join(root, "tests", "behaviours.d", "area.tsv"), "w", encoding="utf-8") as file:
                file.write(listed)
            kept = behaviours.ROOT, behaviours.LIST, behaviours.namespaces_refused
            behaviours.ROOT, behaviours.LIST = root, os.path.join(root, "tests", "behaviours.tsv")
            behaviours.namespaces_refused = lambda reason: refused
            output = io.StringIO()
            try:
                with contextlib.redirect_stdout(output):
                    if current:
                        behaviours.main(["update"])
                    return behaviours.main(["check", self.results]), output.getvalue()
            finally:
                behaviours.ROOT, behaviours.LIST, behaviours.namespaces_refused = kept

    def test_behaviour_held_by_a_passing_test(self):
        self.assertEqual(0, self.behaviours("a frame arrives\tFrame.Arrives_Passes\n")[0])

    def test_behaviour_of_a_parametrised_test_needs_all_instances(self):
        self.assertEqual(0, self.behaviours("all sizes\tFrame.AllSizes_Pass\n")[0])
        status, output = self.behaviours("one size\tFrame.OneSize_Fails\n")
        self.assertEqual(1, status)
        self.assertIn("Frame.OneSize_Fails failed", output)

    def test_behaviour_whose_test_failed_or_did_not_run(self):
        self.assertEqual(1, self.behaviours("lost\tFrame.Lost_Fails\n")[0])
        self.assertEqual(1, self.behaviours("absent\tFrame.Absent_DoesNotRun\n")[0])
        self.assertEqual(1, self.behaviours("unknown\tFrame.NobodyWroteIt\n")[0])

    def test_behaviour_whose_test_was_skipped(self):
        self.assertEqual(1, self.behaviours("lab\tLab.NoNamespaces_Skips\n", refused=False)[0])
        status, output = self.behaviours("lab\tLab.NoNamespaces_Skips\n", refused=True)
        self.assertEqual(0, status)
        self.assertIn("SKIPPED  Lab.NoNamespaces_Skips", output)

    def test_list_that_is_not_current_or_not_well_formed(self):
        self.assertEqual(1, self.behaviours("a frame arrives\tFrame.Arrives_Passes\n", current=False)[0])
        self.assertEqual(1, self.behaviours("a frame arrives Frame.Arrives_Passes\n")[0])
        self.assertEqual(1, self.behaviours("")[0])


class Style(unittest.TestCase):
    def faults(self, line, rules):
        import re
        return [what for pattern, what in rules if re.search(pattern, line)]

    def test_what_is_refused(self):
        for line in ("as P" + "art 3.1 says", "see s" + "pec.md", "fixes i" + "ssue 12", "cd /w" + "ork/x", "blank "):
            self.assertTrue(self.faults(line, check_style.EVERYWHERE), line)
        self.assertTrue(self.faults("#ifdef UNIT_TEST", check_style.IN_PRODUCT))
        self.assertTrue(self.faults("    friend class RingTest;", check_style.IN_PRODUCT))

    def test_what_is_not(self):
        for line in ("part 3 of 5", "/dev/oxelB0", "#define X 0x12", "char a[] = \"/proc/net/route\";", "issue a command"):
            self.assertFalse(self.faults(line, check_style.EVERYWHERE), line)

    def test_comments_and_strings_are_not_code(self):
        self.assertNotIn("throw", check_style.strip_comments('/* throw\n */ int x; // throw\n "throw"'))
        self.assertIn("throw", check_style.strip_comments("throw 1; /* x */"))


class Library(unittest.TestCase):
    def test_difference_names_both_sides(self):
        self.assertEqual(["map lacks a", "map has c besides"], check_library.difference("map", {"a", "b"}, {"b", "c"}))


class Packaging(unittest.TestCase):
    def run_script(self, name, *arguments):
        """With no program at hand that could change anything, if it came to that."""
        with tempfile.TemporaryDirectory() as programs:
            os.symlink(shutil.which("sed"), os.path.join(programs, "sed"))
            return subprocess.run([os.path.join(ROOT, "packaging", name), *arguments], env={"PATH": programs},
                                  capture_output=True, text=True)

    def test_help_and_unknown_options(self):
        for name in "build-packages", "try-packages":
            for option in "--help", "-h":
                told = self.run_script(name + ".sh", option)
                self.assertEqual(told.returncode, 0, told)
                self.assertIn(f"  packaging/{name}.sh ", told.stdout)
                self.assertNotIn("set -euo", told.stdout)
            refused = self.run_script(name + ".sh", "--no-such-option")
            self.assertEqual(refused.returncode, 2, refused)
            self.assertEqual(refused.stderr, f"{name}: unknown argument '--no-such-option' (see --help)\n")

    def test_packages_that_building_packages_needs(self):
        with tempfile.TemporaryDirectory() as programs:  # not a Debian system: it tells instead of installing
            os.symlink(shutil.which("dirname"), os.path.join(programs, "dirname"))
            told = subprocess.run([os.path.join(ROOT, "scripts", "install-deps.sh"), "packages"], env={"PATH": programs},
                                  capture_output=True, text=True)
        needed = told.stderr.split()
        for package in "g++", "debhelper", "lintian":
            self.assertIn(package, needed)
        for package in "clang", "gcovr", "libgtest-dev":
            self.assertNotIn(package, needed)


if __name__ == "__main__":
    unittest.main()
