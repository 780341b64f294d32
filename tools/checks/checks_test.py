#!/usr/bin/env python3
"""Tests of the checks: each finds its fault in a small tree and is silent without it.

The first argument is the compiler.
"""

import importlib.machinery
import importlib.util
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

HERE = pathlib.Path(__file__).parent
sys.path.insert(0, str(HERE))

import documents  # noqa: E402
import formats_against_pages  # noqa: E402
import formats_manual  # noqa: E402
import include_direction  # noqa: E402
import log_lines  # noqa: E402
import packaging  # noqa: E402


def load_mutate():
    """The mutation runner is a program without a suffix, which import does not find by itself."""
    path = str(HERE / "mutate" / "mutate")
    loader = importlib.machinery.SourceFileLoader("mutate", path)
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("mutate", loader))
    sys.modules["mutate"] = module
    loader.exec_module(module)
    return module


mutate = load_mutate()
COMPILER = "c++"

ORDER = include_direction.Order("""
order low middle high   # lowest first
shared common rules
apart middle/alone*.* low/log*.h
""")


class Tree(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)

    def write(self, name, text):
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")


class IncludeDirection(Tree):
    def write(self, name, text):
        super().write(f"src/{name}", text)

    def header(self, name, *included, root="src"):
        super().write(f"{root}/{name}",
                      "#pragma once\n" + "".join(f'#include "{i}"\n' for i in included)
                      + "// Threads: any.\n")

    def tool(self, name, *included):
        self.header(name, *included, root="tools")

    def faults(self):
        return list(include_direction.faults_of(self.root / "src", ORDER, self.root / "tools"))

    def assert_one_fault(self, text):
        faults = self.faults()
        self.assertEqual(1, len(faults), faults)
        self.assertIn(text, faults[0])

    def test_lets_includes_point_downwards(self):
        self.header("low/a.h")
        self.header("middle/b.h", "low/a.h")
        self.header("high/c.h", "middle/b.h", "low/a.h")
        self.assertEqual([], self.faults())

    def test_finds_an_include_that_points_upwards(self):
        self.header("middle/b.h")
        self.header("low/a.h", "middle/b.h")
        self.assert_one_fault('low/a.h:2: includes "middle/b.h" but points upwards')

    def test_lets_anyone_include_what_lies_at_the_top(self):
        self.header("paths.h")
        self.header("low/a.h", "paths.h")
        self.assertEqual([], self.faults())
        self.header("paths.h", "low/a.h")
        self.assert_one_fault("points upwards")

    def test_finds_a_folder_that_the_order_does_not_name(self):
        self.header("low/a.h")
        self.header("other/b.h", "low/a.h")
        self.assert_one_fault("a folder that the order does not name")

    def test_lets_a_format_include_only_formats(self):
        self.header("low/a.h")
        self.header("low/x_format.h")
        self.header("low/y_format.h", "low/x_format.h")
        self.assertEqual([], self.faults())
        self.header("low/y_format.h", "low/a.h")
        self.assert_one_fault("may include formats only")

    def test_lets_sub_commands_include_what_is_shared_and_the_daemon(self):
        self.header("low/a.h")
        self.tool("tarnctl/common/c.h", "low/a.h")
        self.tool("tarnctl/rules/r.h", "tarnctl/common/c.h")
        self.tool("tarnctl/one/o.h", "tarnctl/common/c.h", "tarnctl/rules/r.h", "low/a.h")
        self.tool("tarnctl/main.h", "tarnctl/one/o.h")
        self.assertEqual([], self.faults())

    def test_finds_a_sub_command_that_includes_another(self):
        self.tool("tarnctl/one/o.h")
        self.tool("tarnctl/two/t.h", "tarnctl/one/o.h")
        self.assert_one_fault("belongs to another sub-command")

    def test_finds_what_is_shared_pointing_upwards(self):
        self.tool("tarnctl/rules/r.h")
        self.tool("tarnctl/common/c.h", "tarnctl/rules/r.h")
        self.assert_one_fault("points upwards")
        self.tool("tarnctl/common/c.h", "tarnctl/one/o.h")
        self.tool("tarnctl/one/o.h")
        self.assert_one_fault("belongs to another sub-command")
        self.tool("tarnctl/common/c.h", "tarnctl/top.h")
        self.tool("tarnctl/top.h")
        self.assert_one_fault("points upwards")

    def test_finds_a_daemon_that_includes_its_tools(self):
        self.tool("tarnctl/common/c.h")
        self.header("high/a.h", "tarnctl/common/c.h")
        self.assert_one_fault("knows nothing of its tools")

    def test_keeps_apart_what_stands_alone(self):
        self.header("low/log.h")
        self.header("middle/alone.h", "low/log.h")
        self.assert_one_fault("has to do without it")

    def test_finds_what_every_file_keeps_to(self):
        self.write("low/a.h", "// Threads: any.\n")
        self.assert_one_fault("no #pragma once")
        self.write("low/a.h", "#pragma once\n// Threads of two kinds\n")
        self.assert_one_fault("no comment that says Threads:")
        self.header("low/a.h")
        self.write("low/a.cpp", '#include <vector>\n#include "low/a.h"\n')
        self.assert_one_fault("own header first")
        self.write("low/a.cpp", '#include "a.h"\n')
        self.assertTrue(any("is no path from src/ or tools/" in fault for fault in self.faults()))
        self.write("low/a.cpp", "#include <low/a.h>\n")
        self.assert_one_fault("belongs in quotes")

    def test_refuses_a_list_that_it_does_not_understand(self):
        with self.assertRaises(ValueError):
            include_direction.Order("apart only_one\n")


HEADER = """#pragma once
#include <cstdint>
namespace x {
struct Head { uint16_t type; uint16_t reserved; };
}
struct Message { x::Head head; uint32_t words[2]; };
"""
PAGE = """# Message

<!-- check: Message from low/message_format.h -->

| Offset | Size | Field | Meaning |
|---|---|---|---|
| 0 | 2 | `head.type` | 1237 |
| 2 | 2 | `head.reserved` | 0 |
| 4 | 0x8 | `words` | two of them |
| 12 | n | text | the text after it |
"""


class FormatsAgainstPages(Tree):
    def run_on(self, page):
        self.write("src/low/message_format.h", HEADER)
        self.write("pages/message.md", page)
        return subprocess.run(
            [sys.executable, "-B", HERE / "formats_against_pages.py", "--pages",
             self.root / "pages", "--source", self.root / "src", "--compiler", COMPILER,
             "--output", self.root / "generated.cpp"],
            capture_output=True, text=True, check=False)

    def assert_fault(self, page, text):
        result = self.run_on(page)
        self.assertEqual(1, result.returncode)
        self.assertIn(text, result.stdout + result.stderr)

    def test_is_silent_where_page_and_compiler_agree(self):
        result = self.run_on(PAGE)
        self.assertEqual(0, result.returncode, result.stdout + result.stderr)
        self.assertIn("1 tables, 3 fields compared", result.stdout)

    def test_finds_a_wrong_offset(self):
        page = PAGE.replace("| 0 | 2 | `head.type`", "| 0 | 2 | `head.reserved`")
        self.assert_fault(page.replace("| 2 | 2 | `head.reserved`", "| 2 | 2 | `head.type`"),
                          "message.md:7: Message, head.reserved: the offset is not 0")

    def test_finds_a_wrong_size(self):
        self.assert_fault(PAGE.replace("0x8", "4"), "the size is not 4")

    def test_finds_a_table_that_ends_too_early(self):
        self.assert_fault(PAGE.replace("`words`", "words"), "does not end at 4")

    def test_finds_a_gap_between_rows(self):
        self.assert_fault(PAGE.replace("| 2 | 2 | `head.reserved` | 0 |\n", ""),
                          "`words` begins at 4, not at 2")

    def test_finds_a_member_that_does_not_exist(self):
        self.assert_fault(PAGE.replace("head.type", "head.kind"), "kind")

    def test_finds_a_mark_without_a_table(self):
        self.assert_fault(PAGE.split("|", maxsplit=1)[0], "no table follows")

    def test_finds_a_mark_that_is_misspelt(self):
        self.assert_fault(PAGE.replace(" from ", " in "), "is no mark of the form")

    def test_finds_a_table_without_a_mark(self):
        page = PAGE.replace("<!-- check: Message from low/message_format.h -->", "")
        self.assert_fault(page, "a table of offsets without a mark")
        self.assert_fault(page, "low/message_format.h: no page of the formats")

    def test_takes_a_table_that_is_excused(self):
        extra = PAGE[PAGE.index("| Offset"):]
        page = PAGE + "\n<!-- unchecked: the bytes of a peer, no struct of ours -->\n\n" + extra
        self.assertEqual(0, self.run_on(page).returncode)

    def test_reads_numbers_in_both_forms_and_nothing_else(self):
        self.assertEqual(12, formats_against_pages.number_of("12"))
        self.assertEqual(28, formats_against_pages.number_of("`0x1c`"))
        self.assertIsNone(formats_against_pages.number_of("12 to 15"))


class Documents(Tree):
    FILES = {
        "src/low/ring.h": "class RingPipe;\n",
        "src/low/README.md": "# low/\n\n## Owners\n\n## Tests\n",
        "tests/system/way_test.py": "",
        "docs/testing.md": "Run `way_test.py`.\n",
    }

    def faults(self, page=""):
        files = self.FILES | {"docs/page.md": page} if page else self.FILES
        for name, text in files.items():
            self.write(name, text)
        return list(documents.Pages(self.root, list(files)).faults())

    def assert_one_fault(self, page, text):
        faults = self.faults(page)
        self.assertEqual(1, len(faults), faults)
        self.assertIn(text, faults[0])

    def test_is_silent_where_everything_exists(self):
        self.assertEqual([], self.faults("`src/low/ring.{h}`, `ring.h`, `low/ring.h`, `src/low/` and "
                                         "[a page](testing.md#top)\nof `RingPipe`, `/etc/x.conf`.\n"))

    def test_finds_a_link_that_leads_nowhere(self):
        self.assert_one_fault("See [that](gone.md).\n", "docs/page.md:1: the link to gone.md")

    def test_finds_a_path_a_file_and_a_type_that_do_not_exist(self):
        self.assert_one_fault("In `src/low/gone.h`.\n", "a path that does not exist")
        self.assert_one_fault("In `gone.h`.\n", "a file that does not exist")
        self.assert_one_fault("In `low/gone.h`.\n", "a file that does not exist")
        self.assert_one_fault("A `GoneType`.\n", "a type that no source knows")

    def test_leaves_code_blocks_alone(self):
        self.assertEqual([], self.faults("```\n`gone.h`\n```\n\n    `gone.h`\n"))

    def test_finds_history_and_wide_lines(self):
        self.assert_one_fault("It is no longer so.\n", "describes a former state")
        self.assert_one_fault("word " * 21 + "\n", "is wider than 100 characters")

    def test_finds_headings_of_another_kind_or_order(self):
        self.FILES = self.FILES | {"src/low/README.md": "# low/\n\n## Tests\n\n## Owners\n"}
        self.assertIn("not in the order", self.faults()[0])
        self.FILES = self.FILES | {"src/low/README.md": "# low/\n\n## History\n"}
        self.assertIn("is none of the list", self.faults()[0])

    def test_finds_a_system_test_that_the_page_does_not_name(self):
        self.FILES = self.FILES | {"docs/testing.md": "Nothing.\n"}
        self.assertIn("does not name tests/system/way_test.py", self.faults()[0])


MUTANTS = """# what may go wrong
@ one is added twice
- return a +
-     1;
+ return a + 2;
tests unit_low system.reload

file src/low/b.h
@ nothing changes
- int b;
+ int b{};
= zero either way,
= as nobody reads it
"""


class Mutation(Tree):
    def mutants(self, text=MUTANTS):
        self.write("lists/low/a.txt", text)
        return mutate.read_list(self.root / "lists/low/a.txt", self.root / "lists")

    def test_reads_a_list(self):
        first, second = self.mutants()
        self.assertEqual(("src/low/a.cpp", ["unit_low", "system.reload"], ""),
                         (first.source, first.tests, first.equivalent))
        self.assertEqual(("src/low/b.h", ["unit_low"], "zero either way, as nobody reads it"),
                         (second.source, second.tests, second.equivalent))

    def test_finds_old_text_whatever_its_white_space(self):
        first = self.mutants()[0]
        text = "int f(int a) {\n    return a + 1;\n}\n"
        self.assertEqual("", first.fault(text))
        self.assertEqual("int f(int a) {\n    return a + 2;\n}\n", first.apply(text))

    def test_names_an_entry_that_no_longer_fits(self):
        self.write("src/low/a.cpp", "int f(int a) { return a + 1; }  int g(int a) { return a + 1; }\n")
        faults = list(mutate.faults_of(self.mutants(), self.root))
        self.assertEqual(2, len(faults))
        self.assertIn("low/a.txt:2: one is added twice: its old text occurs 2 times", faults[0])
        self.assertIn("src/low/b.h does not exist", faults[1])

    def test_refuses_a_list_that_it_does_not_understand(self):
        with self.assertRaises(ValueError):
            self.mutants("- text before any entry\n")

    def test_leaves_the_cases_out_of_the_names_of_the_tests(self):
        mutant = self.mutants("@ a fault\n- a\n+ b\ntests unit_low system.reload:storm\n")[0]
        self.assertEqual(["unit_low", "system.reload"], mutant.test_names())

    def test_names_the_case_that_noticed_a_mutant(self):
        for name, output, status in (
                ("Gate.OpensOnce", "a.cpp:3: Failure\n[  FAILED  ] Gate.OpensOnce (0 ms)\n", 1),
                ("Each/Gate.Opens/0", "[  FAILED  ] Each/Gate.Opens/0, where GetParam() = 1 (0 ms)", 1),
                ("test_stops", "noise\nFAIL: test_stops (__main__.Stop.test_stops)\n", 8),
                ("test_stops", "ERROR: test_stops (__main__.Stop.test_stops)\n", 8),
                ("signal 11", "no line of a test\n", -11),
                ("status 8", "", 8)):
            self.assertEqual(name, mutate.finding(output, status))


class FormatsManual(Tree):
    def setUp(self):
        super().setUp()
        for name in formats_manual.PAGES:
            self.write(f"formats/{name}.md", f"# {name}\n\nWhat it is. Code: `src/a.h` (layout).\n")
        self.page("state_file", "A `x-1` and [the main file](tarn_conf.md).\n\n| Offset | Field |\n"
                  "|--:|---|\n| 0 | `a` |\n\n```\n.00 \\n\n```\n\n- one\n- two\n\n"
                  "## Reasons\n\nBecause.\n\n## Limits\n\nNone.\n")
        self.write("man.7", formats_manual.manual(self.root / "formats"))

    def page(self, name, text):
        self.write(f"formats/{name}.md", f"# {name}\n\n{text}")

    def faults(self):
        return formats_manual.faults_of(self.root / "formats", self.root / "man.7")

    def test_makes_roff_of_each_kind_of_block(self):
        text = (self.root / "man.7").read_text(encoding="utf-8")
        self.assertEqual([], self.faults())
        self.assertIn(".Sh UNIFIED2\nWhat it is.\n.Sh", text)
        self.assertIn(".Sh STATE_FILE\nA \\fIx\\-1\\fR and tarn.conf(5).\n"
                      '.Bl -column "mmmmmm" "mmmmm"\n.It Offset Ta Field\n.It 0 Ta \\fIa\\fR\n.El\n'
                      ".Bd -literal\n\\&.00 \\en\n.Ed\n.Bl -bullet\n.It\none\n.It\ntwo\n.El\n"
                      ".Ss Limits\nNone.\n", text)
        self.assertNotIn("Because", text)

    def test_finds_a_page_that_says_something_else(self):
        self.page("unified2", "What it was.\n")
        self.assertEqual(1, len(self.faults()))
        self.assertIn("man.7: is not what docs/formats says", self.faults()[0])

    def test_finds_a_page_without_a_place(self):
        self.page("other", "New.\n")
        self.assertEqual(["other.md: has no place in tarn-formats(7)"], self.faults())


class LogLines(Tree):
    PAGE = ("| level | message | meaning |\n| --- | --- | --- |\n| 1 | `It broke: %s` | look |\n"
            '| 2 | `He said "no" to %d things` | ask |\n| 4 | `Read again` | fine |\n'
            "| 1 | `Thread hung` | wait |\n| 3 | `In two pieces` | glue |\n")
    SOURCE = """
        void f() {
            // log->Write(Log::kError, "Not in a comment");
            log->Write(Log::kError, "It broke: %s", std::strerror(g(Log::kError)));
            Log::Warning("He said \\"no\\" to %d things\\n", 2);
            if (Log::Passes(Log::kNotice)) { Log::GetInstance()->Write(Log::kNotice, "Read again"); }
            log->Write(Log::kDebug, "Traced");
            LogAt(Log::kInfo, 12, "void f()", "In "
                  "two pieces");
            WindDown(thread, "Thread hung");
        }
    """

    def faults(self, page=PAGE, source=SOURCE):
        self.write("page.md", page)
        self.write("src/a/a.cpp", source)
        return log_lines.faults_of(self.root / "page.md", self.root / "src")

    def test_is_silent_where_page_and_messages_are_the_same(self):
        self.assertEqual([], self.faults())

    def test_finds_a_message_without_a_row(self):
        for row in self.PAGE.splitlines(True)[2:]:
            faults = self.faults(page=self.PAGE.replace(row, ""))
            self.assertEqual(1, len(faults), row)
            self.assertIn("has no row in page.md", faults[0])

    def test_finds_a_row_without_its_message(self):
        faults = self.faults(page=self.PAGE + "| 2 | `It mended` | fine |\n")
        self.assertEqual(["page.md:8: `It mended` of level 2 is no message"], faults)

    def test_finds_another_level_and_another_word(self):
        for change in ("kError, \"It broke", "kInfo, \"It broke"), ("It broke", "It  broke"):
            self.assertEqual(2, len(self.faults(source=self.SOURCE.replace(*change))), change)

    def test_finds_a_row_that_is_there_twice_and_one_without_a_meaning(self):
        self.assertEqual(["page.md:8: `Read again` is there twice"],
                         self.faults(page=self.PAGE + "| 4 | `Read again` | fine |\n"))
        self.assertEqual(1, len(self.faults(page=self.PAGE.replace("| fine |", "| |"))))

    def test_finds_a_call_that_logs_what_it_is_given(self):
        self.assertEqual(["a/a.cpp: 1 calls log what they are given, and 0 are known"],
                         self.faults(source=self.SOURCE.replace('kDebug, "Traced"', 'kError, text')))


class PackageLists(Tree):
    def setUp(self):
        super().setUp()
        self.write("tree/packaging/debian/a.install", "usr/bin/a\n# a comment\npackaging/a.conf etc\n")
        self.write("tree/packaging/debian/b.install", "usr/share usr\n")
        self.write("tree/packaging/a.conf", "")
        for name in ("usr/bin/a", "usr/share/b/c"):
            self.write(f"installed/{name}", "")

    def faults(self):
        return packaging.check_lists(self.root / "tree", self.root / "installed")

    def test_is_silent_where_each_file_is_in_one_package(self):
        self.assertEqual([], self.faults())

    def test_finds_a_file_in_no_package_and_one_in_two(self):
        self.write("installed/usr/bin/d", "")
        self.write("tree/packaging/debian/b.install", "usr/share usr\nusr/bin/a\n")
        self.assertEqual(["usr/bin/a is in a.install and b.install", "usr/bin/d is in no package"],
                         self.faults())

    def test_finds_an_entry_that_names_nothing(self):
        self.write("tree/packaging/debian/b.install", "usr/share usr\nusr/sbin\n")
        self.assertEqual(["b.install: usr/sbin names nothing that is installed"], self.faults())


@unittest.skipIf(shutil.which("systemd-analyze") is None, "systemd-analyze is not there")
class Units(Tree):
    STRICT = (HERE.parent.parent / "packaging/systemd/tarn-messages.service")

    def setUp(self):
        super().setUp()
        self.write("tarn.target", "[Unit]\nWants=tarn-y.service tarn-x.service\n")

    def unit(self, old="", new=""):
        """The faults of a strict unit in which a text is replaced."""
        self.write("tarn-x.service", self.STRICT.read_text(encoding="utf-8").replace(old, new))
        return packaging.check_units(self.root)

    def test_is_silent_about_a_strict_unit(self):
        self.assertEqual([], self.unit())

    def test_finds_a_unit_that_may_do_too_much(self):
        self.write("tarn-x.service", "[Unit]\nPartOf=tarn.target\nStartLimitIntervalSec=1\n"
                   "StartLimitBurst=1\n[Service]\nExecStart=/usr/bin/true\nRestart=no\n")
        faults = packaging.check_units(self.root)
        self.assertEqual(1, len(faults), faults)
        self.assertIn("tarn-x.service: exposed above 2.0", faults[0])

    def test_finds_a_word_that_systemd_does_not_know(self):
        faults = self.unit("RestartSec=1", "RestartSecs=1")
        self.assertEqual(1, len(faults), faults)
        self.assertIn("RestartSecs", faults[0])

    def test_finds_a_unit_that_restarts_without_a_limit(self):
        self.assertEqual(["tarn-x.service: without StartLimitBurst="],
                         self.unit("StartLimitBurst=20\n"))
        self.assertEqual(["tarn-x.service: without PartOf=tarn.target"],
                         self.unit("PartOf=tarn.target\n"))

    def test_finds_a_unit_that_the_target_leaves_out(self):
        self.write("tarn.target", "[Unit]\nWants=tarn-y.service\n")
        self.assertEqual(["tarn.target: does not want tarn-x.service"], self.unit())


if __name__ == "__main__":
    if len(sys.argv) > 1:
        COMPILER = sys.argv.pop(1)
    unittest.main()
