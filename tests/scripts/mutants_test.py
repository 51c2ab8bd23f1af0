#!/usr/bin/env python3
"""The mistakes that scripts/mutants.py makes, in a source of a few lines."""

import os
import sys
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(ROOT, "scripts"))
import mutants  # noqa: E402

SOURCE = """\
#define LIMIT 7
static_assert(sizeof(int) == 4, "int");
/* a + b */
int f(int a, struct s *p)
{
    int sum = a + 1;
    if (a < 2 && !p->busy) {
        log("a < b");
        free(p);
        return EINVAL;
    }
    p->first = a;
    p->second = a;
    return 0;
}
"""


def changes(source):
    return {(m.line, m.kind, " ".join(m.after.split())) for m in mutants.mutants_of("f.cpp", source)}


class Mistakes(unittest.TestCase):
    def test_each_of_its_kind_is_made(self):
        made = changes(SOURCE)
        for change in (
            (6, "operator", "int sum = a - 1;"),
            (6, "constant", "int sum = a + 2;"),
            (6, "constant", "int sum = a + 0;"),
            (7, "operator", "if (a <= 2 && !p->busy) {"),
            (7, "operator", "if (a >= 2 && !p->busy) {"),
            (7, "operator", "if (a < 2 || !p->busy) {"),
            (7, "operator", "if (a < 2 && p->busy) {"),
            (7, "condition", "if (!(a < 2 && !p->busy)) {"),
            (8, "dropped", ";"),
            (9, "dropped", ";"),
            (8, "swapped", 'free(p); log("a < b");'),
            (10, "constant", "return EPIPE;"),
            (10, "dropped", ";"),
            (12, "dropped", ";"),
            (14, "constant", "return 1;"),
        ):
            self.assertIn(change, made)

    def test_none_in_comments_strings_directives_and_declarations(self):
        for line, kind, after in changes(SOURCE):
            self.assertGreater(line, 5)
            self.assertNotEqual((line, kind), (6, "dropped"))
            self.assertNotIn((line, kind), ((8, "operator"), (8, "constant")))

    def test_none_in_hints(self):
        source = "int f(int a)\n{\n    if (__builtin_expect(a > 3, 1)) {\n        __builtin_prefetch(&g[4], 1);\n    }\n}\n"
        for line, kind, after in changes(source):
            self.assertEqual(line, 3)
            self.assertIn(", 1))", after)
        self.assertIn((3, "constant", "if (__builtin_expect(a > 4, 1)) {"), changes(source))

    def test_none_in_the_order_of_what_has_none(self):
        self.assertNotIn((12, "swapped", "p->second = a; p->first = a;"), changes(SOURCE))
        dependent = SOURCE.replace("p->second = a", "p->second = p->first")
        self.assertIn((12, "swapped", "p->second = p->first; p->first = a;"), changes(dependent))

    def test_an_edit_elsewhere_draws_the_same(self):
        def keys(source):
            return {m.told()[1:][0]: m.key(1, 1) for m in mutants.mutants_of("f.cpp", source) if m.kind == "condition"}

        self.assertEqual(keys(SOURCE), keys(SOURCE.replace("p->second = a;", "g();")))
        self.assertTrue(keys(SOURCE))

    def test_lines_are_kept(self):
        text = SOURCE.replace('log("a < b");', 'log("a",\n            a);')
        for m in mutants.mutants_of("f.cpp", text):
            changed = text[: m.start] + m.new + text[m.end :]
            self.assertEqual(changed.count("\n"), text.count("\n"))


class Explanations(unittest.TestCase):
    def test_each_has_a_file_both_lines_and_a_reason(self):
        explained = mutants.read_explained()
        self.assertTrue(explained)
        for (name, before, after), why in explained.items():
            self.assertTrue(os.path.exists(os.path.join(ROOT, name)), name)
            self.assertNotEqual(before, after)
            self.assertGreater(len(why), 20)


if __name__ == "__main__":
    unittest.main()
