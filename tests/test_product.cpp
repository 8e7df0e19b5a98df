// test_product.cpp -- the product as users run and install it. scripts/run-zset.sh on this build (--no-build):
// zset's transcript on standard output byte for byte, the failed cases on standard error, the JUnit report and the
// exit status (0 clean, 1 failed or incomplete, 2 cannot set up, before zset runs) with each of its options.
// `cmake --install` into a prefix that is then moved: C programs built through pkg-config and find_package, and its
// zset, run against its library. `cpack -G DEB` from a build configured for /usr: packages as Debian users expect
// them, lintian finds no error. Each test process has a network of its own.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "command_runner.h"
#include "fault_injector.h"
#include "junit_document.h"
#include "kelvane.h"
#include "redis_server.h"
#include "run_script.h"
#include "zset_runner.h"

namespace kelvane_test {
namespace {

namespace fs = std::filesystem;

bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// ---- The run script ------------------------------------------------------------

bool complete(const std::string& out) {
    const Transcript t = parse_transcript(out);
    return t.well_formed && t.cases.size() == static_cast<size_t>(kCases) && !t.summary.empty();
}

// With a server of its own (here through --server-bin, a bare name found on PATH) or one already there that it
// leaves running.
TEST(RunScript, CleanRunPassesWithZsetsTranscriptUntouched) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    TempDir dir;
    write_file(dir / "my-server", "#!/bin/sh\necho started > \"$MARKER\"\nexec redis-server \"$@\"\n");
    chmod((dir / "my-server").c_str(), 0755);
    const ScriptRun r = run_script({"--server-bin", "my-server", "--junit", "report.xml"},
                                   {"MARKER=" + (dir / "marker"), "PATH=" + dir.path() + ":" + getenv("PATH")});
    EXPECT_EQ(r.run.exit_code, 0) << r.run.err;
    ASSERT_TRUE(r.junit.well_formed()) << r.junit.parse_error;
    EXPECT_EQ(r.junit.tests, kCases);
    EXPECT_EQ(r.junit.failures + r.junit.errors, 0);
    EXPECT_TRUE(has(r.run.err, "zset-report: PASSED, 68 of 68 cases passed\n")) << r.run.err;
    EXPECT_TRUE(fs::exists(dir / "marker")) << "--server-bin was not the server started";
    EXPECT_FALSE(RedisServer::listening(kZsetPort)) << "the script left its server running";

    RedisServer server(kZsetPort);
    const ScriptRun existing = run_script({"--existing-server"});
    EXPECT_EQ(existing.run.exit_code, 0) << existing.run.err;
    EXPECT_EQ(existing.run.out, r.run.out);
    EXPECT_TRUE(RedisServer::listening(kZsetPort)) << "the script stopped a server it did not start";
    // The same bytes zset prints on its own against a fresh server (its time-to-live keys must not exist yet).
    server.command({"FLUSHALL"});
    EXPECT_EQ(r.run.out, run_zset().out);
}

// zset carries a search path to this build's library; --library must win over it, as the loader itself reports.
// The library there has one fault (the injector loaded over it), and the run fails with exactly its case.
TEST(RunScript, LibraryOptionRunsThatLibraryAndItsFaultFailsTheRun) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    TempDir lib;
    const std::string built = fs::canonical(std::string(KELVANE_BUILD_DIR) + "/lib/libkelvane.so.1");
    fs::copy_file(built, lib / "libkelvane.so.1");
    std::vector<std::string> env = injector_env("zcount_max_exclusive");
    env.push_back("LD_DEBUG=libs");
    const ScriptRun r = run_script({"--library", lib.path(), "--junit", "report.xml"}, env);
    EXPECT_EQ(r.run.exit_code, 1);
    EXPECT_TRUE(complete(r.run.out)) << r.run.out;
    EXPECT_TRUE(has(r.run.err, "calling init: " + lib.path() + "/libkelvane.so.1\n"));
    EXPECT_FALSE(has(r.run.err, "calling init: " + built));
    EXPECT_TRUE(has(r.run.err, "FAILED ZCOUNT 1 \"ZCOUNT - sorted sets\"\n    Condition=[i == 3] HAS FAILED at zset.cpp"))
        << r.run.err;
    ASSERT_TRUE(r.junit.well_formed()) << r.junit.parse_error;
    const auto failures = r.junit.of_kind("failure");
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].name, "ZCOUNT - sorted sets");
    EXPECT_EQ(failures[0].message.rfind("Condition=[i == 3] HAS FAILED at zset.cpp line ", 0), 0u);
}

// Each found before zset runs: zset prints nothing.
TEST(RunScript, WhatCannotBeSetUpExits2WithoutRunningZset) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    TempDir empty;
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"--existing-server"},  // nothing listens
             {"--server-bin", empty / "no-such-server"}, {"--server-bin", "no-such-server"},
             {"--server-bin", "/bin/false"}, {"--library", empty.path()}, {"--build-dir", empty.path()},
             {"--timeout", "soon"}, {"--no-such-option"}, {"--existing-server", "--cluster"},
             {"--existing-server", "--tls"},
             // a report in a directory that is not there, in one nobody may write to, or a directory itself
             {"--junit", "no/such/dir/report.xml"}, {"--junit", "/proc/report.xml"}, {"--junit", "."}}) {
        const ScriptRun r = run_script(args);
        EXPECT_EQ(r.run.exit_code, 2) << args[0] << " " << (args.size() > 1 ? args[1] : "") << "\n" << r.run.err;
        EXPECT_EQ(r.run.out, "") << args[0];
        EXPECT_NE(r.run.err, "") << args[0];
    }
    // Ports taken: 12345 for one server; any of 12345-12350 and their bus ports for a cluster.
    for (const int port : {kZsetPort, 12348, 22346}) {
        RedisServer squatter(port);
        const ScriptRun r = run_script(port == kZsetPort ? std::vector<std::string>{} : std::vector<std::string>{"--cluster"});
        EXPECT_EQ(r.run.exit_code, 2) << port;
        EXPECT_EQ(r.run.out, "") << port;
        EXPECT_TRUE(has(r.run.err, "already listens on 127.0.0.1:" + std::to_string(port))) << r.run.err;
    }
    const ScriptRun help = run_script({"--help"});
    EXPECT_EQ(help.run.exit_code, 0);
    EXPECT_TRUE(has(help.run.out, "Exit status:"));
}

// A private cluster: the script forms it, runs zset once against it and takes it down. Whether every case passes
// depends on the library's cluster support; the exit status must say which.
TEST(RunScript, ClusterRunFormsRunsAndTearsDownAPrivateCluster) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    const ScriptRun r = run_script({"--cluster", "--junit", "report.xml"});
    EXPECT_TRUE(complete(r.run.out)) << r.run.out << r.run.err;
    const bool all_passed = parse_transcript(r.run.out).summary == summary_line(kCases, 0);
    EXPECT_EQ(r.run.exit_code, all_passed ? 0 : 1) << r.run.err;
    ASSERT_TRUE(r.junit.well_formed()) << r.junit.parse_error;
    EXPECT_GE(r.junit.tests, kCases);
    for (int port = 12345; port <= 12350; ++port) EXPECT_FALSE(RedisServer::listening(port)) << port;
}

// --tls: servers with TLS only that require client certificates, one or a cluster; zset, built as ever, gets its
// settings from the environment. A plaintext client is turned away from the same port meanwhile.
TEST(RunScript, TlsRunsOfAServerAndOfAClusterPassThroughTheEnvironment) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    for (const auto& args : std::vector<std::vector<std::string>>{{"--tls"}, {"--tls", "--cluster"}}) {
        const std::string what = args.size() > 1 ? "cluster" : "server";
        bool turned_away = false;
        // zset itself, run with no settings while the script's servers are up: the port speaks TLS only.
        const ScriptRun r = run_script(args, {}, [&] {
            for (int i = 0; i < 300 && !RedisServer::listening(kZsetPort); ++i) usleep(10000);
            ZsetRunOptions plain;
            plain.timeout_s = 60;
            turned_away = has(run_zset(plain).out, "PASSED = 0, FAILED = 68");
        });
        EXPECT_EQ(r.run.exit_code, 0) << what << "\n" << r.run.err;
        EXPECT_EQ(parse_transcript(r.run.out).summary, summary_line(kCases, 0)) << what;
        EXPECT_TRUE(turned_away) << what << ": a plaintext zset was served";
        for (int port = 12345; port <= 12350; ++port) EXPECT_FALSE(RedisServer::listening(port)) << port;
    }
}

// --sentinel: a master with two replicas and three Sentinels, 12345 among them, zset given the master's name in its
// environment. Twice in a row (new servers each time, so the time-to-live keys are new), then with TLS everywhere;
// nothing is left running; refused before zset runs while one of its ports is taken.
TEST(RunScript, SentinelRunsPassEachTimeAndLeaveNothingRunning) {
    SKIP_UNLESS_ZSET_PORT_FREE();
    for (const auto& args : std::vector<std::vector<std::string>>{{"--sentinel"}, {"--sentinel"}, {"--sentinel", "--tls"}}) {
        const ScriptRun r = run_script(args);
        EXPECT_EQ(r.run.exit_code, 0) << args.size() << "\n" << r.run.err;
        EXPECT_EQ(parse_transcript(r.run.out).summary, summary_line(kCases, 0)) << r.run.err;
        for (int port = 12345; port <= 12350; ++port) EXPECT_FALSE(RedisServer::listening(port)) << port;
    }
    RedisServer squatter(12349);
    const ScriptRun r = run_script({"--sentinel"});
    EXPECT_EQ(r.run.exit_code, 2);
    EXPECT_EQ(r.run.out, "");
    EXPECT_TRUE(has(r.run.err, "already listens on 127.0.0.1:12349")) << r.run.err;
}

// ---- The installed product -----------------------------------------------------

const std::string kLib = KELVANE_INSTALL_LIBDIR, kBin = KELVANE_INSTALL_BINDIR;

std::string quoted(const std::string& s) { return "'" + s + "'"; }

// Runs a shell command and fails the test with its output if it does not exit 0; gives its standard output.
std::string ok(const std::string& script, const std::vector<std::string>& env = {}) {
    CommandOptions options;
    options.env = env;
    options.env.push_back("LC_ALL=C");  // byte order for ls and sort
    options.timeout_s = 300;
    const CommandResult r = run_command({"/bin/sh", "-c", script}, options);
    EXPECT_EQ(r.exit_code, 0) << script << "\n" << r.out << r.err;
    return r.out;
}

// Where the loader finds libkelvane.so.1 for a program, as the loader itself says.
std::string loaded_library(const std::string& program) {
    std::string path =
        ok("LD_TRACE_LOADED_OBJECTS=1 " + quoted(program) + " | awk '$1 == \"libkelvane.so.1\" { print $3 }'");
    if (!path.empty() && path.back() == '\n') path.pop_back();
    return path;
}

bool same_file(const std::string& a, const std::string& b) {
    std::error_code ec;
    return fs::equivalent(a, b, ec);
}

TEST(Install, AMovedPrefixServesPkgConfigAndFindPackageConsumersAndZset) {
    TempDir tmp;
    ok(std::string(KELVANE_CMAKE) + " --install " + quoted(KELVANE_BUILD_DIR) + " --prefix " + quoted(tmp / "first") +
       " >/dev/null");
    // No installed text file (pkg-config, CMake package files, the header) points back into the build or the
    // sources. (Debug information names the build, as it should.)
    for (const std::string& tree : {std::string(KELVANE_BUILD_DIR), std::string(KELVANE_SOURCE_DIR) + "/"}) {
        EXPECT_EQ(ok("grep -rIlF " + quoted(tree) + " " + quoted(tmp / "first") + " || true"), "") << tree;
    }
    fs::rename(tmp / "first", tmp / "moved");
    const std::string prefix = tmp / "moved", installed_lib = prefix + "/" + kLib + "/libkelvane.so.1";
    const std::string consumer = std::string(KELVANE_SOURCE_DIR) + "/tests/install_consumer";

    // pkg-config: the paths follow the .pc file to wherever the prefix now lies (the first one is gone).
    const std::vector<std::string> pc_env = {"PKG_CONFIG_PATH=" + prefix + "/" + kLib + "/pkgconfig"};
    ok(std::string(KELVANE_C_COMPILER) + " " + quoted(consumer + "/consumer.c") + " -o " +
           quoted(tmp / "by-pkg-config") + " $(pkg-config --cflags --libs kelvane)" +
           " -Wl,-rpath,$(pkg-config --variable=libdir kelvane)",
       pc_env);
    EXPECT_EQ(ok(quoted(tmp / "by-pkg-config")), "installed\n");
    EXPECT_TRUE(same_file(loaded_library(tmp / "by-pkg-config"), installed_lib));

    // find_package: the imported target kelvane::kelvane carries the include directory and the library.
    const std::string build = tmp / "consumer-build";
    ok(std::string(KELVANE_CMAKE) + " -S " + quoted(consumer) + " -B " + quoted(build) + " -DCMAKE_PREFIX_PATH=" +
       quoted(prefix) + " -DCMAKE_C_COMPILER=" + quoted(KELVANE_C_COMPILER) + " >/dev/null && " + KELVANE_CMAKE +
       " --build " + quoted(build) + " >/dev/null");
    EXPECT_EQ(ok(quoted(build + "/consumer")), "installed\n");
    EXPECT_TRUE(same_file(loaded_library(build + "/consumer"), installed_lib));

    // zset in bin/ finds the library through its $ORIGIN-relative search path, and passes against it.
    const std::string bin = prefix + "/" + kBin;
    EXPECT_EQ(loaded_library(bin + "/zset"), bin + "/../" + kLib + "/libkelvane.so.1");
    SKIP_UNLESS_ZSET_PORT_FREE();
    RedisServer server(kZsetPort);
    EXPECT_EQ(ok(quoted(bin + "/zset") + " | " + quoted(bin + "/zset-report")),
              "zset-report: PASSED, 68 of 68 cases passed\n");
}

std::string first_line(const std::string& text) { return text.substr(0, text.find('\n')); }

// Debian packages come from a build configured as Debian's own builds are: prefix /usr, where GNUInstallDirs gives
// the multiarch library directory, and debug information to split off. A build for another prefix (this one, as a
// rule) is refused.
TEST(Install, DebianPackagesAreStrippedMultiarchDocumentedAndLintianClean) {
    TempDir tmp;
    if (std::string(KELVANE_INSTALL_PREFIX) != "/usr") {
        CommandOptions in_tmp;
        in_tmp.dir = tmp.path();
        const CommandResult refused = run_command(
            {KELVANE_CPACK, "-G", "DEB", "--config", std::string(KELVANE_BUILD_DIR) + "/CPackConfig.cmake"}, in_tmp);
        EXPECT_NE(refused.exit_code, 0);
        EXPECT_TRUE(has(refused.out + refused.err, "-DCMAKE_INSTALL_PREFIX=/usr")) << refused.out << refused.err;
    }

    const std::string build = tmp / "build";
    ok(std::string(KELVANE_CMAKE) + " -S " + quoted(KELVANE_SOURCE_DIR) + " -B " + quoted(build) +
       " -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELVANE_TESTS=OFF -DKELVANE_BENCH=OFF"
       " -DKELVANE_EXAMPLES=OFF -DCMAKE_C_COMPILER=" + quoted(KELVANE_C_COMPILER) + " -DCMAKE_CXX_COMPILER=" +
       quoted(KELVANE_CXX_COMPILER) + " >/dev/null && " + KELVANE_CMAKE + " --build " + quoted(build) +
       " -j2 >/dev/null && cd " + quoted(build) + " && " + KELVANE_CPACK + " -G DEB >/dev/null");
    const std::string arch = first_line(ok("dpkg --print-architecture")),
                      libdir = "./usr/lib/" + first_line(ok("dpkg-architecture -qDEB_HOST_MULTIARCH")) + "/",
                      tail = "_" + std::string(KELVANE_VERSION_STRING) + "-1_" + arch;
    const std::string lib_deb = "libkelvane1" + tail + ".deb", dev_deb = "libkelvane-dev" + tail + ".deb",
                      zset_deb = "zset" + tail + ".deb", lib_dbg = "libkelvane1-dbgsym" + tail + ".ddeb",
                      zset_dbg = "zset-dbgsym" + tail + ".ddeb";
    EXPECT_EQ(ok("cd " + quoted(build) + " && ls *.deb *.ddeb"),
              dev_deb + "\n" + lib_dbg + "\n" + lib_deb + "\n" + zset_dbg + "\n" + zset_deb + "\n");
    auto field = [&](const std::string& deb, const std::string& name) {
        return ok("dpkg-deb -f " + quoted(build + "/" + deb) + " " + name);
    };
    // Files and links (as path->target), without directories.
    auto contents = [&](const std::string& deb) {
        return ok("dpkg-deb -c " + quoted(build + "/" + deb) + " | awk '{ print $6 $7 $8 }' | grep -v '/$' | "
                  "sed 's/Targets-.*[.]cmake/Targets-<build type>.cmake/' | sort");
    };
    auto docs = [](const std::string& package) {
        return "./usr/share/doc/" + package + "/changelog.Debian.gz\n./usr/share/doc/" + package + "/copyright\n";
    };
    const std::string version = KELVANE_VERSION_STRING;
    EXPECT_TRUE(has(field(lib_deb, "Depends"), "libhiredis"));
    EXPECT_TRUE(has(field(lib_deb, "Depends"), "libssl3"));
    EXPECT_EQ(contents(lib_deb), libdir + "libkelvane.so.1->libkelvane.so." + version + "\n" + libdir +
                                     "libkelvane.so." + version + "\n" + docs("libkelvane1"));
    EXPECT_TRUE(has(field(dev_deb, "Depends"), "libkelvane1 (= " + version + "-1)"));
    const std::string cmake_dir = libdir + "cmake/kelvane/kelvane";
    EXPECT_EQ(contents(dev_deb), "./usr/include/kelvane.h\n" + cmake_dir + "Config.cmake\n" + cmake_dir +
                                     "ConfigVersion.cmake\n" + cmake_dir + "Targets-<build type>.cmake\n" + cmake_dir +
                                     "Targets.cmake\n" + libdir + "libkelvane.so->libkelvane.so.1\n" + libdir +
                                     "pkgconfig/kelvane.pc\n" + docs("libkelvane-dev"));
    EXPECT_TRUE(has(field(zset_deb, "Depends"), "libkelvane1 (= " + version + "-1)"));
    EXPECT_EQ(contents(zset_deb), "./usr/bin/zset\n./usr/bin/zset-report\n" + docs("zset"));
    // The programs' debug information, by build id, with a link to their package's documentation.
    for (const auto& [dbg, package, programs] :
         std::vector<std::tuple<std::string, std::string, int>>{{lib_dbg, "libkelvane1", 1}, {zset_dbg, "zset", 2}}) {
        EXPECT_TRUE(has(field(dbg, "Depends"), package + " (= " + version + "-1)"));
        const std::vector<std::string> files = lines_of(contents(dbg));
        ASSERT_EQ(files.size(), static_cast<size_t>(programs + 1)) << dbg;
        for (int k = 0; k < programs; ++k) {
            EXPECT_TRUE(std::regex_match(files[k], std::regex("[.]/usr/lib/debug/[.]build-id/../[0-9a-f]+[.]debug")));
        }
        EXPECT_EQ(files.back(), "./usr/share/doc/" + package + "-dbgsym->" + package);
    }

    // One description each; the copyright file in the machine-readable format; Installed-Size as dpkg measures:
    // each file's size in KiB rounded up, 1 for each directory and link.
    std::set<std::string> synopses;
    for (const std::string& deb : {lib_deb, dev_deb, zset_deb}) synopses.insert(first_line(field(deb, "Description")));
    EXPECT_EQ(synopses.size(), 3u);
    EXPECT_TRUE(has(ok("dpkg-deb --fsys-tarfile " + quoted(build + "/" + zset_deb) +
                       " | tar -xO ./usr/share/doc/zset/copyright"),
                    "Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/\n"
                    "Upstream-Name: kelvane\n"));
    for (const std::string& deb : {lib_deb, dev_deb, zset_deb, lib_dbg, zset_dbg}) {
        EXPECT_EQ(field(deb, "Installed-Size"),
                  ok("dpkg-deb -c " + quoted(build + "/" + deb) +
                     " | awk '$6 != \"./\" { kib += $1 ~ /^-/ ? int(($3 + 1023) / 1024) : 1 } END { print kib }'"))
            << deb;
    }
    // Stripped programs, copyright files, changelogs, descriptions and the rest of Debian's rules: no lintian error.
    ok("cd " + quoted(build) + " && lintian --fail-on error *.deb *.ddeb 2>&1");

    // Installed by dpkg into a scratch root with a database of its own (whose dependencies it cannot see), the
    // packaged zset finds the packaged library.
    const std::string root = tmp / "root";
    ok("mkdir -p " + quoted(root + "/var/lib/dpkg/info") + " && touch " + quoted(root + "/var/lib/dpkg/status") +
       " && cd " + quoted(build) + " && dpkg --root=" + quoted(root) +
       " --force-depends --force-script-chrootless -i *.deb *.ddeb >/dev/null");
    EXPECT_EQ(ok("dpkg-query --root=" + quoted(root) + " -W -f='${Package} ${Status}\\n' | sort"),
              "libkelvane-dev install ok installed\nlibkelvane1 install ok installed\n"
              "libkelvane1-dbgsym install ok installed\nzset install ok installed\nzset-dbgsym install ok installed\n");
    EXPECT_EQ(loaded_library(root + "/usr/bin/zset"), root + "/usr/bin/../" + libdir.substr(6) + "libkelvane.so.1");
}

}  // namespace
}  // namespace kelvane_test
