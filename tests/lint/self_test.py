#!/usr/bin/python3
"""Tests of the checks themselves: each finds what it is for and lets the rest pass."""

import sys
import unittest
from pathlib import PurePosixPath

sys.dont_write_bytecode = True
import co_await_temporaries  # noqa: E402
import include_rules  # noqa: E402
import named_tests  # noqa: E402
import sources  # noqa: E402
import threads  # noqa: E402


class Threads(unittest.TestCase):
    def test_threads_are_found_wherever_they_are_made(self):
        for text in ("std::thread([] {}).detach();", "std::thread{run};", "std::async(run);",
                     "std::jthread (run);", "pthread_create(&t, nullptr, run, nullptr);"):
            self.assertTrue(threads.check("a.cpp", text), text)

    def test_threads_that_are_only_held_are_none(self):
        for text in ("std::thread thread_;", "std::vector<std::thread> threads_;",
                     "std::thread::id id;", "// std::thread(run)", "thread_ = startThread(a, b);"):
            self.assertEqual(threads.check("a.cpp", text), [], text)


class NamedTests(unittest.TestCase):
    FILES = {"host/test_a.py": "def test_b():\n    pass\n", "host/empty.py": ""}
    UNIT = named_tests.unit_tests(["TEST(Suite, Name) {\nTEST_F(Other,\n       Long) {\n"])

    def problems(self, tests):
        return named_tests.check(f"| claim | tests |\n|---|---|\n| it holds | {tests} |\n",
                                 self.UNIT, self.FILES.get)

    def test_tests_that_exist_are_found(self):
        for name in ("Suite.Name", "Other.Long", "Suite.*", "Suite.N*", "host/test_a",
                     "host/test_a::test_b"):
            self.assertEqual(self.problems(f"`{name}`"), [], name)

    def test_tests_that_do_not_exist_are_reported(self):
        for name in ("Suite.Nam", "Suit.*", "host/test_a::test_c", "host/empty", "host/test_z"):
            self.assertEqual(len(self.problems(f"`Suite.Name`, `{name}`")), 1, name)

    def test_a_claim_without_a_test_is_reported(self):
        self.assertEqual(len(self.problems("by reading the code")), 1)


class IncludeRules(unittest.TestCase):
    def problems(self, path, text, existing=True):
        return include_rules.check(PurePosixPath(path), text, lambda header: existing)

    def assertPasses(self, path, text):
        self.assertEqual(self.problems(path, text), [])

    def assertRefused(self, path, text):
        self.assertEqual(len(self.problems(path, text)), 1, self.problems(path, text))

    def test_layers_include_what_their_arrows_reach(self):
        self.assertPasses("webdav/A.cpp", '#include "bridge/FPBridge.h"\n#include "platform/x/Y.h"')
        self.assertPasses("cli/A.cpp", '#include "extension/FileProviderExtension.h"')
        self.assertPasses("host/A.cpp", '#include "mount/M.h"\n#include "extension/E.h"')
        self.assertPasses("items/A.cpp", '#include "items/B.h"')
        self.assertPasses("replica/A.h", '#include "async/Loop.h"')

    def test_layers_do_not_include_against_their_arrows(self):
        self.assertRefused("bridge/A.cpp", '#include "webdav/WebDAVClient.h"')
        self.assertRefused("platform/base/A.cpp", '#include "bridge/FPBridge.h"')
        self.assertRefused("mount/A.cpp", '#include "extension/FileProviderExtension.h"')
        self.assertRefused("replica/A.h", '#include "mount/M.h"')
        self.assertRefused("async/A.h", '#include "replica/Replica.h"')
        self.assertRefused("extension/A.h", '#include "host/H.h"')

    def test_rooms_of_a_layer_have_arrows_of_their_own(self):
        self.assertPasses("replica/plan/A.cpp", '#include "replica/plan/A.h"\n#include "replica/model/B.h"')
        self.assertPasses("replica/model/A.h", '#include "platform/base/Fatal.h"')
        self.assertRefused("replica/model/A.h", '#include "replica/plan/B.h"')
        self.assertRefused("replica/plan/A.h", '#include "replica/NameRules.h"')
        self.assertRefused("replica/model/A.h", '#include "replica/model.h"')
        self.assertRefused("replica/plan/A.h", '#include "mount/M.h"')
        self.assertPasses("replica/store/A.cpp", '#include "replica/Records.h"')
        self.assertRefused("replica/store/A.cpp", '#include "replica/Core.h"')
        self.assertPasses("replica/remote/A.h", '#include "async/Loop.h"')
        self.assertRefused("replica/remote/A.h", '#include "replica/Core.h"')

    def test_the_logger_is_a_leaf(self):
        self.assertPasses("webdav/A.cpp", '#include "extension/fpLog.h"')
        self.assertPasses("items/A.cpp", '#include "extension/fpLog.h"')
        self.assertRefused("bridge/A.cpp", '#include "extension/fpLog.h"')
        self.assertRefused("webdav/A.cpp", '#include "extension/FileProviderExtension.h"')

    def test_headers_of_other_projects_have_one_place(self):
        self.assertPasses("platform/linux/A.cpp", "#include <curl/curl.h>\n#include <libxml/parser.h>")
        self.assertRefused("webdav/A.cpp", "#include <curl/curl.h>")
        self.assertRefused("platform/foundation/A.cpp", "#include <openssl/evp.h>")
        self.assertRefused("cli/A.cpp", "#include <nlohmann/json.hpp>")
        self.assertPasses("replica/store/A.cpp", "#include <sqlite3.h>")
        self.assertRefused("replica/A.cpp", "#include <sqlite3.h>")
        self.assertPasses("mount/A.cpp", "#include <fuse3/fuse_lowlevel.h>")
        self.assertRefused("host/A.cpp", "#include <fuse_lowlevel.h>")
        self.assertPasses("cli/A.cpp", "#include <CLI/CLI.hpp>")
        self.assertRefused("cli/A.cpp", "#include <boost/asio.hpp>")

    def test_system_headers_are_free(self):
        self.assertPasses("webdav/A.cpp",
                          "#include <string>\n#include <unistd.h>\n#include <sys/stat.h>")

    def test_comments_do_not_include(self):
        self.assertPasses("bridge/A.cpp", '// #include "webdav/A.h"\n/*\n#include "cli/B.h"\n*/')

    def test_quoted_headers_are_ours(self):
        self.assertEqual(len(self.problems("bridge/A.cpp", '#include "bridge/Gone.h"', False)), 1)

    def test_unknown_layers_are_refused(self):
        self.assertRefused("util/A.cpp", "")


class CoAwaitTemporaries(unittest.TestCase):
    def assertFinds(self, text):
        self.assertTrue(co_await_temporaries.check("a.cpp", text), text)

    def assertPasses(self, text):
        self.assertEqual(co_await_temporaries.check("a.cpp", text), [])

    def test_braced_temporaries_are_found(self):
        self.assertFinds('co_await send(Request{"GET", url});')
        self.assertFinds("auto x = co_await client->send({method, url});")
        self.assertFinds("auto x = co_await send(std::vector<int>{1, 2});")
        self.assertFinds("co_await send(\n    first,\n    Header{name, value});")
        self.assertFinds("co_return co_await Awaiter{state};")

    def test_capturing_lambdas_are_found(self):
        self.assertFinds("co_await run([this] { go(); });")
        self.assertFinds("co_await run(executor, [&x](int y) { return x + y; });")

    def test_the_rest_passes(self):
        self.assertPasses("co_await send(std::move(request));")
        self.assertPasses("co_await run([](int y) { return Pair{y, y}; });")
        self.assertPasses("co_await list(path);\nauto lambda = [this] { go(); };\nPair p{1, 2};")
        self.assertPasses("if (co_await ready()) { Pair p{1, 2}; }")
        self.assertPasses("// co_await send(Request{1});\n")
        self.assertPasses("auto operator co_await() { return Awaiter{handle}; }")
        self.assertPasses('co_await send("text {a}", values[index]);')


class Reading(unittest.TestCase):
    def test_literals_and_comments_are_blanked_in_place(self):
        text = 'a = "{;}"; // {\nb = R"(\n{)"; /* { */ c = \'{\'; d = 1\'000;'
        code = sources.code_only(text)
        self.assertEqual(len(code), len(text))
        self.assertEqual(code.count("\n"), text.count("\n"))
        self.assertNotIn("{", code)
        self.assertIn("d = 1'000;", code)


if __name__ == "__main__":
    unittest.main()
