"""What tools/mutate finds to change in a source, and what it leaves alone."""

import importlib.machinery
import importlib.util
import pathlib
import sys
import unittest

sys.dont_write_bytecode = True
TOOL = pathlib.Path(__file__).resolve().parents[2] / "tools" / "mutate"
loader = importlib.machinery.SourceFileLoader("mutate", str(TOOL))
mutate = importlib.util.module_from_spec(importlib.util.spec_from_loader("mutate", loader))
loader.exec_module(mutate)


def changes(text):
    return [f"{token} -> {replacement}" for _, token, replacement in mutate.changes_of(text)]


class Changes(unittest.TestCase):
    def test_compare_and_count(self):
        self.assertEqual(changes("if (a <= b && !c) n += 2;"),
                         ["<= -> <", "&& -> ||", "! -> ", "+= -> -=", "2 -> 3"])

    def test_words(self):
        self.assertEqual(changes("truest = true; continue;"), ["true -> false", "continue -> break"])

    def test_comments_are_left_alone(self):
        self.assertEqual(changes("a; // b == c\n/* d == e\n true */ f; // on \\\n 1 == 2\ng;"), [])

    def test_strings_are_left_alone(self):
        self.assertEqual(changes(r'''f("a \" == 1", '\'', u8"1", '"', "//"); x == y;'''), ["== -> !="])

    def test_raw_strings_are_left_alone(self):
        self.assertEqual(changes('f(R"x(a )" == 1\n# true\n)x"); g(R"(")"); a != b;'), ["!= -> =="])

    def test_directives_are_left_alone(self):
        self.assertEqual(changes("#if A == 1 && \\\n  B > 2\n  # define X 3\nint a = 4;"), ["4 -> 5"])

    def test_templates_and_references_are_left_alone(self):
        self.assertEqual(changes("template <class T>\nstd::vector<T>& f(const T& a, T* b);"), [])

    def test_binary_operators(self):
        self.assertEqual(changes("a < b; c > d; e + f; -g; h & i; *j; k->l; m - n; &o;"),
                         ["< -> <=", "> -> >=", "+ -> -", "& -> |", "- -> +"])

    def test_names_of_operators_are_left_alone(self):
        self.assertEqual(changes("bool operator==(A a) const; bool operator!() const;"), [])

    def test_numbers(self):
        self.assertEqual(changes("0x7f; 0b101u; 1'000ULL; 07; 1.5; 2e3; x1;"),
                         ["0x7f -> 0x80", "0b101u -> 6u", "1'000ULL -> 1001ULL", "07 -> 010"])

    def test_apply_changes_the_one_token(self):
        text = "a == b;\n  c == d;\n"
        position, token, replacement = list(mutate.changes_of(text))[1]
        change = mutate.Change("f.cpp", text, position, token, replacement)
        self.assertEqual(change.apply(text), "a == b;\n  c != d;\n")
        self.assertEqual(str(change), "f.cpp:2: == -> !=")
        self.assertEqual(change.source, "c == d;")


unittest.main()
