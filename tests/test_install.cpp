// test_install.cpp -- the installed product as users get it: `cmake --install` into a temporary prefix that is
// then moved still serves a C program through pkg-config and through find_package, and its zset runs against its
// own library; `cpack -G DEB` makes the three Debian packages, one component each, which unpacked together give a
// zset that finds the packaged library.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "command_runner.h"
#include "fault_injector.h"
#include "redis_server.h"

namespace kelvane_test {
namespace {

namespace fs = std::filesystem;

#if !defined(KELVANE_SOURCE_DIR) || !defined(KELVANE_BUILD_DIR) || !defined(KELVANE_INSTALL_LIBDIR)
#error "the build must define KELVANE_SOURCE_DIR, KELVANE_BUILD_DIR and the install directories"
#endif
const std::string kLib = KELVANE_INSTALL_LIBDIR, kBin = KELVANE_INSTALL_BINDIR, kInclude = KELVANE_INSTALL_INCLUDEDIR;

std::string quoted(const std::string& s) { return "'" + s + "'"; }

// Runs a shell command and fails the test with its output if it does not exit 0; gives its standard output.
std::string ok(const std::string& script, const std::vector<std::string>& env = {}) {
    CommandOptions options;
    options.env = env;
    options.env.push_back("LC_ALL=C");  // byte order for ls and sort
    options.timeout_s = 300;
    const CommandResult r = run_shell(script, options);
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
    EXPECT_EQ(read_file(tmp / "first/" + kInclude + "/kelvane.h"),
              read_file(std::string(KELVANE_SOURCE_DIR) + "/include/kelvane.h"));
    // No installed text file (pkg-config, CMake package files, the header) points back into the build or the
    // sources. (Debug information names the build, as it should.)
    for (const std::string& tree : {std::string(KELVANE_BUILD_DIR), std::string(KELVANE_SOURCE_DIR) + "/"}) {
        EXPECT_EQ(ok("grep -rIlF " + quoted(tree) + " " + quoted(tmp / "first") + " || true"), "") << tree;
    }
    fs::rename(tmp / "first", tmp / "moved");
    const std::string prefix = tmp / "moved", installed_lib = prefix + "/" + kLib + "/libkelvane.so.1";
    const std::string consumer = std::string(KELVANE_SOURCE_DIR) + "/tests/install_consumer";

    // pkg-config: the paths follow the .pc file to wherever the prefix now lies.
    const std::vector<std::string> pc_env = {"PKG_CONFIG_PATH=" + prefix + "/" + kLib + "/pkgconfig"};
    const std::string flags = ok("pkg-config --cflags --libs kelvane", pc_env);
    EXPECT_NE(flags.find("-I" + prefix), std::string::npos) << flags;
    EXPECT_NE(flags.find("-L" + prefix), std::string::npos) << flags;
    EXPECT_EQ(ok("pkg-config --modversion kelvane", pc_env), "1.0.0\n");
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
    const CommandResult run = run_command({bin + "/zset"});
    EXPECT_EQ(run.exit_code, 0);
    CommandOptions input;
    input.input = run.out;
    const CommandResult judged = run_command({bin + "/zset-report"}, input);
    EXPECT_EQ(judged.exit_code, 0) << judged.out;
}

TEST(Install, DebianPackagesCarryOneComponentEach) {
    TempDir tmp;
    ok("cd " + quoted(tmp.path()) + " && " + KELVANE_CPACK + " -G DEB --config " +
       quoted(std::string(KELVANE_BUILD_DIR) + "/CPackConfig.cmake") + " >/dev/null");
    std::string arch = ok("dpkg --print-architecture");
    arch.pop_back();
    const std::string lib_deb = "libkelvane1_1.0.0-1_" + arch + ".deb",
                      dev_deb = "libkelvane-dev_1.0.0-1_" + arch + ".deb", zset_deb = "zset_1.0.0-1_" + arch + ".deb";
    EXPECT_EQ(ok("cd " + quoted(tmp.path()) + " && ls *.deb"), dev_deb + "\n" + lib_deb + "\n" + zset_deb + "\n");
    auto field = [&](const std::string& deb, const std::string& name) {
        return ok("dpkg-deb -f " + quoted(tmp / deb) + " " + name);
    };
    auto contents = [&](const std::string& deb) {
        return ok("dpkg-deb -c " + quoted(tmp / deb) + " | awk '{ print $6 $7 $8 }' | grep -v '/$' | "
                  "sed 's/Targets-.*[.]cmake/Targets-<build type>.cmake/' | sort");
    };
    EXPECT_EQ(field(lib_deb, "Package"), "libkelvane1\n");
    EXPECT_NE(field(lib_deb, "Depends").find("libhiredis"), std::string::npos);
    EXPECT_EQ(contents(lib_deb), "./usr/lib/libkelvane.so.1->libkelvane.so.1.0.0\n./usr/lib/libkelvane.so.1.0.0\n");
    EXPECT_NE(field(dev_deb, "Depends").find("libkelvane1 (= 1.0.0-1)"), std::string::npos);
    EXPECT_EQ(contents(dev_deb),
              "./usr/include/kelvane.h\n./usr/lib/cmake/kelvane/kelvaneConfig.cmake\n"
              "./usr/lib/cmake/kelvane/kelvaneConfigVersion.cmake\n"
              "./usr/lib/cmake/kelvane/kelvaneTargets-<build type>.cmake\n"
              "./usr/lib/cmake/kelvane/kelvaneTargets.cmake\n./usr/lib/libkelvane.so->libkelvane.so.1\n"
              "./usr/lib/pkgconfig/kelvane.pc\n");
    EXPECT_NE(field(zset_deb, "Depends").find("libkelvane1 (= 1.0.0-1)"), std::string::npos);
    EXPECT_EQ(contents(zset_deb), "./usr/bin/zset\n./usr/bin/zset-report\n");

    // Unpacked side by side, the packaged zset finds the packaged library.
    const std::string root = tmp / "root";
    ok("for d in " + quoted(tmp.path()) + "/*.deb; do dpkg-deb -x \"$d\" " + quoted(root) + "; done");
    EXPECT_EQ(loaded_library(root + "/usr/bin/zset"), root + "/usr/bin/../lib/libkelvane.so.1");
}

}  // namespace
}  // namespace kelvane_test
