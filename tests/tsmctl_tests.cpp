// tsmctl from end to end: real trees, a store in a folder of its own, the shipped binary in a shell.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "standin/testcontrol.h"
#include "tsmconnector.h"

namespace {
namespace fs = std::filesystem;

struct Outcome {
    int status;
    std::string out;
    std::string err;
};

std::string Content(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

const char* const helpers = R"(
tsmctl() { "$T" "$@"; }
faulty() { TSM_FAULT=$1 "${T%/*}/faulty_tsmctl" "${@:2}"; }
low() { [ $UID != 0 ] || set -- setpriv --bounding-set=-dac_override,-dac_read_search "$@"; "$@"; }
)";

class Tsmctl : public testing::Test {
protected:
    void SetUp() override {
        std::string pattern = fs::temp_directory_path() / "tsmctl-test-XXXXXX";
        root = mkdtemp(pattern.data());
        std::ofstream(root / "dsm.opt") << "STOREDIR " << (root / "store").native() << "\nBACKDELETE YES\n";
        fs::create_directories(root / "work");
        setenv("TSMCTL_CONFIG", (root / "dsm.opt").c_str(), 1);
        setenv("TSMCTL_PASSWORD", "secret", 1);
        setenv("TSMCTL_NODE", "node", 1);
        setenv("TSMCTL_LOG_DIR", root.c_str(), 1);
        setenv("TSMCTL_RETRIES", "0", 1);
        unsetenv("TSMCTL_FILESPACE");
    }
    void TearDown() override {
        if (HasFailure()) {
            std::cout << root << '\n' << Content(root / "dsierror.log");
            return;
        }
        fs::permissions(root, fs::perms::owner_all);
        fs::remove_all(root);
    }

    // Runs lines of shell in the work folder; "tsmctl" is the binary, "faulty" lets a call of the API fail, and "low"
    // runs what follows without root's way past the modes. No terminal is in reach.
    Outcome Run(const std::string& script) {
        std::ofstream(root / "script") << "T='" TSMCTL_BINARY "'" << helpers << script << '\n';
        const std::string command =
            "cd '" + (root / "work").native() + "' && setsid -w bash ../script >../out 2>../err </dev/null";
        const int status = std::system(command.c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, Content(root / "out"), Content(root / "err")};
    }

    // out and err are parts of what is written; without an err, nothing but summaries may be.
    void Expect(const std::string& script, int status, const std::string& out = "", const std::string& err = "") {
        SCOPED_TRACE(script);
        const Outcome outcome = Run(script);
        EXPECT_EQ(outcome.status, status) << outcome.out << outcome.err;
        EXPECT_NE(outcome.out.find(out), std::string::npos) << outcome.out;
        EXPECT_NE(outcome.err.find(err), std::string::npos) << outcome.err;
        static const std::regex summary("tsmctl: [a-z]+:( [0-9]+ [a-z ]+,)*( [0-9]+ bytes)? in [0-9.]+ s(, .*)?\n");
        EXPECT_EQ(err.empty() ? std::regex_replace(outcome.err, summary, "") : "", "");
    }

    fs::path root;
};

// Another program, which stores objects in its own way.
class OtherProgram {
public:
    explicit OtherProgram(const fs::path& root) {
        EXPECT_EQ(TsmInitApi(Text(root / "dsm.opt"), nullptr, nullptr, nullptr), 0);
        handle_ = TsmOpenSession(Text("node"), nullptr, Text("secret"), nullptr, nullptr, nullptr, Text("/"));
        EXPECT_GT(handle_, 0);
        EXPECT_EQ(TsmConnectToFileSpace(handle_, Text("tsmctl")), 0);
    }
    ~OtherProgram() { TsmReleaseApi(); }

    void Put(const std::string& path, const std::string& name, const std::string& info, std::string data) {
        auto* const bytes = reinterpret_cast<unsigned char*>(data.data());
        const bool directory = data.empty() || info.rfind("tsmctl2 d ", 0) == 0;
        char* const text = info.empty() ? nullptr : Text(info);
        EXPECT_EQ(TsmBeginBackupEx(handle_, Text(path), Text(name), directory ? 0 : 1, text, nullptr), 0);
        EXPECT_EQ(directory ? 0 : TsmSendData(handle_, bytes, static_cast<int>(data.size())), 0);
        EXPECT_EQ(TsmEndBackup(handle_), 0) << path << ' ' << name;
    }

    // Info, data as they are stored, and the announced size.
    std::tuple<std::string, std::string, long long> Get(const std::string& path, const std::string& name) {
        TsmObject* objects = nullptr;
        EXPECT_EQ(TsmGetBackupInfo(handle_, Text(path), Text(name), 1, TSM_OBJECTS_FILES, &objects), 1);
        const std::string info = objects->objectInfo;
        const long long announced = objects->size;
        EXPECT_GE(TsmBeginRestore(handle_, Text(path), Text(name), nullptr), 0);
        std::vector<unsigned char> room(1 << 20);
        unsigned char* buffer = room.data();
        std::string data;
        for (int length = 0; (length = TsmGetData(handle_, &buffer, 1 << 20)) > 0;)
            data.append(buffer, buffer + length);
        EXPECT_EQ(TsmEndRestore(handle_), 0);
        return {info, data, announced};
    }

private:
    char* Text(const std::string& text) {
        kept_.push_back(std::make_unique<std::string>(text));
        return kept_.back()->data();
    }
    std::vector<std::unique_ptr<std::string>> kept_;
    int handle_ = 0;
};

const char* const makeTree = R"(
mkdir -p tree/sub/deep tree/empty tree/closed
printf hello > tree/file; : > tree/nothing; head -c 3145729 /dev/urandom > tree/sub/big
ln -s nowhere tree/dangling; ln -s sub tree/tosub
for name in 'a*b?' '100%' '%41' 'back\slash' $'new\nline' $'\377\376' ' sp ace'; do echo "$name" > "tree/sub/deep/$name"; done
mkdir 'tree/sub/%5C*'; echo x > 'tree/sub/%5C*/x'; mkfifo tree/pipe; truncate -s 9000001 tree/holes tree/closed/hole
echo data | dd of=tree/holes bs=1 seek=5000000 conv=notrunc status=none; ln tree/sub/big tree/sub/deep/twin
[ $UID != 0 ] || { mknod tree/null c 1 3; chown 1000:1001 tree/file tree/empty; chown -h 1002:1003 tree/dangling; }
python3 -c 'import os, stat, struct
os.mknod("tree/socket", 0o600 | stat.S_IFSOCK)
os.setxattr("tree/file", "user.a %:", b"x\0y\n"), os.setxattr("tree/empty", "user.empty", b"")
acl = b"".join(struct.pack("<HHI", *e) for e in ((1, 7, 2**32-1), (2, 5, 1), (4, 5, 2**32-1), (16, 5, 2**32-1), (32, 0, 2**32-1)))
for name in ("access", "default"): os.setxattr("tree/sub/deep", "system.posix_acl_" + name, struct.pack("<I", 2) + acl)'
mkdir -m 6751 tree/closed/100%; chmod 4751 tree/sub/deep/100%; chmod 0400 tree/file; touch -d '1969-12-31 23:59:58.25 UTC' tree/sub/big
touch -d '2001-02-03 04:05:06.123456789' tree/file tree/empty; touch -hd '2002-02-02 02:02:02.5' tree/dangling
chmod 0550 tree/closed; chmod 1751 tree/sub; touch -d '2003-03-03 03:03:03.000000001' tree/sub tree)";

const char* const compare = R"(
look() { (cd "$1" && find . ! -type s ! -name 100% -printf '%p %y %m %U:%G %n %T@ %l\n' | sort; stat -c '%t:%T' null
python3 -c 'import os
for path, folders, files in os.walk("."):
    for name in (os.path.join(path, n) for n in sorted(folders + files)):
        print(ascii(name), *((x, os.getxattr(name, x, follow_symlinks=False)) for x in sorted(os.listxattr(name, follow_symlinks=False))))
' | grep -v socket | sort); }
diff <(look tree) <(look out/tree) && diff -r --no-dereference -x pipe -x null -x socket tree out/tree &&
(($(stat -c %b out/tree/holes) + $(stat -c %b out/tree/closed/hole) < 99)))";

class Jobs : public Tsmctl, public testing::WithParamInterface<const char*> {};

TEST_P(Jobs, ATreeComesBackAsItWas) {
    const std::string jobs = GetParam();
    Expect(makeTree, 0);
    Expect("tsmctl backup tree --to /some/place " + jobs, 0, "", "tree/socket: warning");
    Expect("tsmctl verify tree --to some/place/ -q " + jobs, 0);
    Expect("tsmctl restore some/place/tree --to out " + jobs, 0, "",
           "tree/sub/deep/100%: warning: restored without its set-user-id and set-group-id bits\ntsmctl: "
           "tree/closed/100%: "
           "warning: restored without");
    Expect(compare, 0);
    Expect("stat -c %a out/tree/sub/deep/100% out/tree/closed/100%; find out -name '.tsmctl*'", 0, "751\n751\n");
    Expect("tsmctl check some " + jobs +
               " -q && tsmctl check some/place/tree --sums -q > sums && cd out && sha256sum -c ../sums",
           0, "tree/sub/big: OK\n");
    Expect("cd tree/sub/.. && tsmctl verify . --to some/place -q && tsmctl verify ../tree/ --to some/place -q", 0);
}
INSTANTIATE_TEST_SUITE_P(All, Jobs, testing::Values("-j 1", "-j 4"));

TEST_F(Tsmctl, WhatIsNotACommandIsAUsageError) {
    Run("mkdir -p a/x b/x; tsmctl -q backup a b");
    std::istringstream refused(
        "|backup|backup a/x b/x|backup ''|backup / a|backup -|backup a --as n|backup a -j 0|backup a -j 65|"
        "backup a --size 3|backup a --estimate 3|backup - --as n --size 1 --estimate 2|check --subset 0|backup a --to "
        "../b|restore a --at yesterday|restore ''|restore a --to ''|"
        "list --filespace ''|restore a --at '2024-02-30 00:00:00'|restore a --at '2024-02-03 24:00:00'|"
        "list --at '2024-01-01'|list --type link|delete ''|delete /|delete 'a*/x'|delete --recursive a|"
        "rename a a/|rename a a/b|rename / a|rename a /|delete-filespace tsmctl|completion bash");
    for (std::string arguments; std::getline(refused, arguments, '|');)
        Expect("tsmctl " + arguments, 2, "", "tsmctl: ");
    const std::vector<std::pair<const char*, const char*>> told = {
        {"-q frobnicate a", "unexpected argument: frobnicate (see 'tsmctl --help')"},
        {"restore a --forse", "unexpected argument: --forse (see 'tsmctl restore --help')"},
        {"--force restore a", "unexpected argument: --force"},
        {"rename a", "NEW is required"},
        {"rename a b c", "unexpected argument: c"},
        {"backup a --jobs", "--jobs: 1 required NUMBER"},
        {"list --node a --node b", "--node: "},
        {"list --json=no", "json was given a disallowed"},
        {"backup --to= a b", "--to= needs a value"},
        {"list --node --json", "--node needs a value"},
        {"backup --to -qx a b", "--to needs a value"},
        {"backup --to -- a b", "--to needs a value"},
        {"backup - --as n --size $(printf 9%.0s {1..300})", "0 to 9223372036854775807 is needed, not '9999999"},
        {"backup - --as n --size 0x10", "not '0x10'"},
        {"help lst", "lst not in "}};
    for (const auto& [arguments, text] : told) Expect(std::string("tsmctl ") + arguments, 2, "", text);
    Expect("tsmctl backup - --as n --size 010 <<< 123456789 && tsmctl list n -q", 0, "stream     0600            10 ");
    Expect("tsmctl --help > /dev/full", 1, "", "standard output");
    Expect("tsmctl frobnicate 2> /dev/full", 2);
    Expect("unset TSMCTL_PASSWORD; tsmctl list", 2, "", "no password");
    Expect("tsmctl --password-file . list", 1, "", "password file .: cannot read: Is a directory");
    Expect("tsmctl --password-file /dev/zero list", 1, "", "password file /dev/zero: a line is longer than 4096 bytes");
    Expect("TSMCTL_PASSWORD= tsmctl --node new list", 2, "", "password is empty");
    Expect("umask 077; : > pw; tsmctl --password-file pw --node new list", 2, "", "password is empty");
    Expect("printf 'a\\0b' > pw; tsmctl --password-file pw --node new list", 2, "", "holds a byte 0");
    Expect(
        "printf 'secret\\r\nmore' > pw; tsmctl -q --password-file pw list a && chmod 644 pw && tsmctl -q "
        "--password-file pw list a 2>&1 | head -1",
        0, "pw: warning: other users can read");
    Expect("tsmctl list --json -q | wc -l", 0, "5");
}

TEST_F(Tsmctl, AFailureIsToldAndTheRestIsDone) {
    Expect(
        "echo 1 > one; echo 2 > two; mkdir deep; cd deep; n=$(printf %0200d 0); for i in 1 2 3 4 5; do mkdir $n; cd "
        "$n; done; "
        "echo > ok; mkdir $n; : > $n/far; name=$(printf '%%%.0s' {1..90}); echo > $name",
        0);
    Expect("tsmctl backup one none two", 1, "", "tsmctl: none: ");
    Expect("tsmctl backup deep", 1, "", "too long");
    Expect("tsmctl list | grep -c -e one -e two -e ok", 0, "3");
    Expect("TSMCTL_PASSWORD=wrong tsmctl list", 1, "", "sign on as node node: DSM_RC_AUTH_FAILURE (-137), wrong");
    Expect("tsmctl restore nothing", 1, "", "DSM_RC_ABORT_NO_MATCH (-2)");
    Expect("faulty 'dsmEndSendObj 1 1' backup two --full", 0, "");  // looks like the version before, of this second
    Expect("tsmctl backup one --full --class NONE", 1, "", "tsmctl: one: ");
    Expect("tsmctl list one > /dev/full", 1, "", "standard output");
    Expect("tsmctl restore one --to - > /dev/full", 1, "", "cannot write");
    Expect(
        "mkfifo pipe; tsmctl backup pipe /proc/version", 1, "",
        "tsmctl: pipe: is neither a file nor a link nor a directory\ntsmctl: /proc/version: holds more than its size");
    Expect("mkdir -p u/shut; touch u/f u/shut/f; tsmctl -q backup u; chmod 0 u/shut", 0);
    Expect("low $T verify -q u 2>&1 | sed 's/ .* / /'", 0, "tsmctl: denied\nu/shut: stored\n");
    Expect("low $T backup u", 1, "", "2 directories, 1 file,");
    if (Content("/sys/kernel/mm/transparent_hugepage/enabled").empty()) GTEST_SKIP() << "no file that reads short";
    Expect("tsmctl backup /sys/kernel/mm/transparent_hugepage/enabled", 1, "", "not stored");
    Expect("tsmctl list enabled", 1, "", "not found");
}

TEST_F(Tsmctl, WhatTheApiRefusesIsExplained) {
    const std::string fullStore = "head -c 3M /dev/zero > big; trap '' XFSZ; ulimit -f 1000; tsmctl -q backup big";
    Expect(fullStore, 1, "", "(-1), the server failed, as with storage that is full");
    Expect(fullStore, 1, "", "tsmctl: the client API's log has more: " + (root / "dsierror.log").native());
    Expect("export XDG_STATE_HOME=$PWD/state; unset TSMCTL_LOG_DIR; umask 0; " + fullStore, 1, "",
           "state/tsmctl/dsierr");
    Expect("stat -c %a state state/tsmctl", 0, "700\n700\n");
    Expect("export XDG_STATE_HOME=/dev/null; unset TSMCTL_LOG_DIR; tsmctl list -q", 0);
    Expect(
        "unset XDG_STATE_HOME TSMCTL_LOG_DIR; HOME=/proc; [ $UID != 0 ] || { HOME=$PWD/h; mkdir h; chown 1 h; }\n"
        "tsmctl list -q; [ ! -e $HOME/.local ]",
        0);
    Expect("tsmctl list --log-dir /nope", 1, "", "cannot keep the log in /nope: No such file or directory\n");
    Expect("tsmctl list --config none", 1, "", "options file none: DSM_RC_INVALID_PARM (-109), a value");
}

// The pipe for its warnings is full until the folder has changed.
TEST_F(Tsmctl, NothingLeadsOutOfTheTreeDuringABackup) {
    Expect(
        R"(mkdir -p t/sub t/pipes outside; echo > t/sub/f; echo secret > outside/f; mkfifo log; python3 -c 'import os, stat; [os.mknod(f"t/pipes/{n:0200}", stat.S_IFSOCK) for n in range(400)]'
        tsmctl backup t 2> log & exec 3< log; read -r <&3; mv t/sub was; ln -s ../outside t/sub; cat <&3; wait $!)",
        1, "tsmctl: t/sub: cannot open");
    Expect("tsmctl list t/sub/f", 1, "", "not found");
}

TEST_F(Tsmctl, RestoreReplacesWhenToldTo) {
    Expect("umask 022; mkdir d; echo new > d/f; ln -s x d/l; tsmctl -q backup d; echo old > d/f; ln -sfn y d/l", 0);
    Expect("tsmctl restore d --overwrite never; cat d/f; readlink d/l; ls -A d | wc -l", 0, "old\ny\n2\n");
    Expect("tsmctl restore d", 1, "", "exists already");
    Expect("tsmctl -q restore d --overwrite changed && cat d/f && readlink d/l", 0, "new\nx\n");
    Expect("tsmctl restore d", 0, "", "2 unchanged");
    Expect("chmod 600 d/f; tsmctl restore d; tsmctl restore d --overwrite changed", 0, "", "1 unchanged");
    Expect("tsmctl restore d --force 2>&1 | grep unchanged", 1);
    Expect(
        "rm d/*; chmod 0711 d; tsmctl -q restore d --overwrite never; stat -c %a d; tsmctl -q restore d; stat -c %a d",
        0, "711\n755\n");
    Expect(R"(mkdir -p ro/sub; touch ro/sub/f; chmod 0555 ro ro/sub; tsmctl -q backup ro; chmod -R u+w ro
        for how in always changed never; do rm ro/sub/f; chmod 0555 ro ro/sub; low $T -q restore ro --overwrite $how || exit
        stat -c %a ro ro/sub; ls ro/sub; chmod -R u+w ro; done)",
           0, "555\n555\nf\n555\n555\nf\n555\n555\nf\n");
    Expect(
        "for f in h o/h; do mkdir -p $f; echo $f > $f/a; truncate -s 9 $f/a; touch -d @9 $f/a; done; ln h/a h/b;"
        "tsmctl -q backup h; tsmctl restore h --to o; r=$?; cmp o/h/b h/b && grep -a o/h o/h/a; rm -r o; exit $r",
        1, "o/h", "h/a: exists already");
    Expect("mkdir -p o/f o2; tsmctl restore d/f --to o --force", 1, "", "a directory of this name");
    Expect("ln -s ../o2 o/d; tsmctl restore d --to o --force", 1, "", "d is in the way");
    Expect("ls -A o2; tsmctl restore / --to o3 -q && cat o3/d/f", 0, "new\n");
}

TEST_F(Tsmctl, StandardInputAndOutput) {
    Expect("head -c 2500000 /dev/urandom > data; cat data | tsmctl backup - --as dumps/a", 0);
    Expect("tsmctl restore dumps/a --to - | cmp - data && tsmctl verify - --as dumps/a < data", 0);
    Expect("faulty 'dsmGetData 2 2200' restore dumps/a --to - | cmp - data", 0);
    Expect("faulty 'dsmGetData 2 2200' verify - --as dumps/a < data", 0);
    Expect("tsmctl backup - --as closed <&-", 1, "", "cannot read");
    Expect("tsmctl restore dumps/a --to - >&-", 1, "", "cannot write");
    Expect("echo more | cat data - | tsmctl verify - --as dumps/a", 1, "content differs");
    Expect("tsmctl backup - --as b --size 0 < /dev/null && tsmctl restore b && stat -c '%s %a' b", 0, "0 600\n");
    for (const char* const size : {"2499999", "2500001"}) {
        Expect(std::string("tsmctl backup - --as c --size ") + size + " < data", 1, "", "not stored");
    }
    Expect("tsmctl list c || tsmctl list closed", 1, "", "tsmctl: closed: not found");
}

TEST_F(Tsmctl, VerifyNamesEachDifference) {
    Expect("mkdir -p t/d; echo abc > t/f; ln -s a t/l; echo 1 > t/g; echo > t/d/e; tsmctl -q backup t; cp -a t orig",
           0);
    const std::vector<std::pair<const char*, const char*>> cases = {
        {"touch -r t/f r; printf abd > t/f; touch -r r t/f", "content differs"},
        {"echo 4 >> t/f; touch -r orig/f t/f", "content differs"},
        {"chmod 0611 t/f", "mode 0611 here"},
        {"touch -d @5.5 t/f; export TZ=XXX-3", "modification time 1970-01-01 03:00:05.500000000 +0300 here, 2"},
        {"rm t/f", "t/f: is stored and not here"},
        {"rm -r t/d", "t/d/e: is stored and not here"},
        {"mkdir t/new; echo > t/new/n", "t/new/n: is not stored"},
        {"ln -sfn b t/l; touch -hr orig/l t/l", "t/l: content differs"},
        {"rm t/f; mkdir t/f", "directory here, file stored"},
        {"rm t/f; mkfifo t/f", "pipe here, file stored"}};
    for (const auto& [change, line] : cases) {
        Expect("rm -rf t r; cp -a orig t; tsmctl -q verify t", 0);
        Expect(std::string(change) + "; tsmctl -q verify t", 1, line);
    }
}

TEST_F(Tsmctl, WhatCannotBeComparedIsToldAndTheRestIs) {
    Expect("mkdir -p t/a t/b t/c; tsmctl -q backup t; chmod 0 t/b; touch t/c/new", 0);
    OtherProgram(root).Put("t", "a", "tsmctl3 d 0755 1.000000000 0", "");
    for (const char* const command : {"diff t --local t", "verify t"}) {
        Expect(std::string("low $T -q ") + command, 1, "t/c/new",
               "t/a: its information text is damaged, or a newer tsmctl wrote it\ntsmctl: t/b: ");
    }
}

TEST_F(Tsmctl, DamageIsNoticed) {
    Expect("mkdir d; echo content > d/f; python3 -c 'import os; os.setxattr(\"d/f\", \"user.k\", b\"value\")'", 0);
    Expect("tsmctl -q backup d; cat d/f | tsmctl -q backup - --as d/s", 0);
    const char* const beside = "what is stored beside its content is damaged";
    const char* const content = "its content does not have the SHA-256 that was stored with it";
    const char* const unknown = "its information text is damaged, or a newer tsmctl wrote it";
    struct Case {
        const char *of, *info, *otherInfo;
        long damaged, size;  // a byte of the data, and of how many bytes
        const char* told;
    };
    const Case cases[] = {{"f", "", "", -170, 0, content},
                          {"f", "", "", 8, 0, beside},
                          {"f", "", "", -2, 0, beside},
                          {"f", " 0644 ", " 4755 ", 0, 0, beside},
                          {"f", "", "", 0, -1, "7 bytes received, the object has 8"},
                          {"f", "", "", 0, 5, "0 bytes received, the object has 8"},
                          {"f", " f 0644", " f 0644 9", 0, 0, unknown},
                          {"f", "tsmctl2", "tsmctl3", 0, 0, unknown},
                          {"f", "tsmctl2", "tsmctl0", 0, 0, unknown},
                          {"f", "tsmctl2", "tsmctl1", 0, 0, unknown},
                          {"f", "tsmctl2", "tsnctl2", 0, 0, unknown},
                          {"f", "tsmctl2 f", "g", 0, 0, "has a seal, but its information text is damaged"},
                          {"s", " 8 ", " - ", -170, 0, content},
                          {"s", " 8 ", " - ", 0, -1, content},
                          {"s", " 8 ", " - ", 0, 0, beside}};
    {
        OtherProgram other(root);
        int number = 0;
        for (const Case& c : cases) {
            auto [info, data, announced] = other.Get("d", c.of);
            EXPECT_EQ(announced, static_cast<long long>(data.size()));
            if (const size_t at = info.find(c.info); *c.info) info.replace(at, strlen(c.info), c.otherInfo);
            const long length = static_cast<long>(data.size());
            if (c.damaged != 0) data[static_cast<size_t>((c.damaged + length) % length)] ^= 1;
            if (c.size != 0) data.resize(static_cast<size_t>((c.size + length) % length));
            other.Put("bad", std::to_string(number++), info, data);
        }
        other.Put("bad", "old", "tsmctl1 f 0644 1.000000000 3", "old");
        auto [info, data, announced] = other.Get("d", "f");
        data[data.size() - 170] ^= 1;
        other.Put("d", "f", info, data);
        other.Put("", "d", "tsmctl2 d 0755 1.000000000 0 0:0 1.000000000 sum=00000000", "");
        other.Put("", "cap", "tsmctl2 d 0755 1.000000000 0 0:0 1.000000000 xattr=security%2Ecapability:AQ==", "");
        other.Put("", "holes", "tsmctl2 f 0644 1.000000000 9000000000000000000 0:0 1.000000000 header=9",
                  "data=0:0\n" + std::string(169, ' '));
        other.Put("", "size", "tsmctl2 f 0644 1.000000000 9000000000 0:0 1.000000000 header=9",
                  "data=0:0\n" + std::string(169, ' '));
    }
    for (size_t i = 0; i < std::size(cases); ++i) {
        const std::string object = "bad/" + std::to_string(i);
        Expect("tsmctl -q check " + object, 1, "", object + ": " + cases[i].told);
        Expect("tsmctl -q restore " + object + " --to out", 1, "", cases[i].told);
    }
    Expect("tsmctl -q restore bad/old --to out; ls -A out; stat -c %a,%Y out/old", 0, "old\n644,1\n");
    Expect("tsmctl check bad --subset 100", 1, "", "stored without a SHA-256 to compare with (1 object)\n");
    Expect("tsmctl check bad --subset 1 2>&1 | grep -c :", 0, "2\n");
    Expect("mkdir bad; touch bad/old; tsmctl backup bad 2>&1", 0, "gone here, but left as it is stored (5 objects)");
    Expect("tsmctl -q list bad | wc -l; tsmctl -q restore cap --to out", 0, "11\n", "without its capabilities");
    Expect("tsmctl -q check holes || tsmctl -q restore holes", 1, "", "holes: has holes of more than 16 TiB");
    Expect("tsmctl -q check size", 1, "", std::string("size: ") + beside);
    Expect("tsmctl check d -q --subset 1", 1, "", std::string("tsmctl: d: ") + unknown);
    const std::string copied = "cp -a d e; rm -r d; mv e d; tsmctl backup d --checksum";
    Expect(copied, 0, "", " 0 new, 2 changed, 0 unchanged,");
    Expect(copied, 0, "", " 0 new, 0 changed, 2 unchanged,");
    Expect("tsmctl check d -q --sums && tsmctl check nothing", 1, "  d/s\n", "not found");
}

TEST_F(Tsmctl, WhatMayNotBeRestoredIsTold) {
    if (geteuid() != 0) GTEST_SKIP() << "only root may all of this";
    Expect("mkdir d; touch d/f; mknod d/c c 1 3; chown 1:2 d/f d; chown :3 d/c; tsmctl -q backup d", 0);
    Expect("tsmctl restore d/c --to -", 1, "", "is not one file or stream");
    Expect("setpriv --bounding-set=-chown,-mknod $T -q restore d --to out && find out/d -printf '%f %U:%G '", 0,
           "d 0:0 f 0:0 ",
           "tsmctl: warning: owner and group not restored (2 objects)\n"
           "tsmctl: warning: special file not restored (1 object)\n");
}

// Bigger than what is read in a tick of the clock.
TEST_F(Tsmctl, AFileThatChangesIsNotStoredTorn) {
    Expect("head -c 30M /dev/zero > f; while :; do echo >> f; done & tsmctl backup f; s=$?; kill $!; exit $s", 1, "",
           "f: changed while it was read, 4 times; not stored\n");
    Expect("tsmctl list f || tsmctl -q backup f && tsmctl -q verify f", 0, "", "not found");
}

TEST_F(Tsmctl, StreamsAreAnnouncedRatherTooLarge) {
    struct Case {
        const char *stream, *options;
        long long announced;
        const char* told;
    };
    const Case cases[] = {
        {"echo", "", 1, ""},
        {"head -c 2M /dev/zero", "", 10LL << 30, ""},
        {"head -c 2M /dev/zero", "--estimate 5", 1 << 20, "2097152 bytes, but 1048576 were announced"},
        {"head -c 2M /dev/zero", "--estimate 3000000", 3000000, ""},
        {"head -c 2M /dev/zero", "", 10LL << 30, ""},
        {"head -c 2M /dev/zero", "--size 2097152", 2 << 20, ""},
        {"head -c 2M /dev/zero", "", 2306867, ""}};
    for (const Case& c : cases) {
        Expect(std::string(c.stream) + " | tsmctl backup - --as s " + c.options, 0, "", c.told);
        OtherProgram other(root);
        EXPECT_EQ(std::get<2>(other.Get("", "s")) - 169, c.announced) << c.stream << c.options;
    }
}

TEST_F(Tsmctl, ForeignObjectsNeitherEscapeNorStandForOthers) {
    fs::create_directories(root / "outside");
    {
        OtherProgram other(root);
        other.Put("t/evil", "f", "", "bad");
        other.Put("t", "evil2", "tsmctl1 l 0777 1.000000000 " + std::to_string((root / "outside").native().size()),
                  (root / "outside").native());
        other.Put("t", "evil", "tsmctl1 l 0777 1.000000000 2", "..");
        other.Put("t/evil2", "f", "", "bad");
        other.Put("t", "..", "", "bad");
        other.Put("t/..", "up", "", "bad");
        other.Put("t", "a/b", "", "bad");
        other.Put("t", "short", "tsmctl1 f 0644 1.000000000 9", "eight...");
        other.Put("t", "st*r", "", "wild");
        other.Put("u", "x*", "", "wrong");
        other.Put("u", "xy", "", "right");
        other.Put("u", "fine", "hello", "other");
    }
    Expect("umask 022; tsmctl restore t --to out", 1, "", "cannot be that of a file here");
    Expect("tsmctl restore t --to out --force; find out ../outside .. -maxdepth 1 -name f -o -name up -o -name short",
           0, "", "8 bytes received, the object has 9");
    EXPECT_TRUE(fs::is_empty(root / "outside"));
    EXPECT_FALSE(fs::exists(root / "work/out/f") || fs::exists(root / "work/out/t/short") ||
                 fs::exists(root / "work/up"));
    Expect("cat 'out/t/st*r'", 0, "wild");
    Expect("tsmctl restore 'u/x*'", 1, "", "other names as well");
    Expect("tsmctl restore u/fine -q && stat -c %a fine && cat fine", 0, "644\nother");
    Expect("tsmctl -q verify fine --to u && printf otter > fine; tsmctl -q verify fine --to u", 1,
           "fine: content differs\n");
    Expect("mkdir u; echo > 'u/x*'; tsmctl -q verify u", 1, "u/fine: is stored and not here", "other names as well");
    Expect("tsmctl delete --literal 'u/x*'", 1, "", "other names as well");
    Expect("tsmctl delete --recursive --yes u", 1, "removed u/fine\nremoved u/xy\n", "other names as well");
    Expect("tsmctl list --literal 'u/x*' --json", 0, R"("path":"u/x*","kind":"file","size":1,"mode":null)");
}

TEST_F(Tsmctl, MomentsAndVersions) {
    Expect(
        "echo one > f; tsmctl -q backup f; sleep 1.1; date '+%F %T' > at; sleep 1.1; echo two > f; tsmctl -q backup f",
        0);
    Expect("tsmctl restore f --to - --at \"$(cat at)\"; tsmctl restore f --to -", 0, "one\ntwo\n");
    Expect("tsmctl list f --all-versions | wc -l; tsmctl list f | wc -l; tsmctl list --at '2001-1-1 0:0:0' | wc -l", 0,
           "2\n1\n0\n", "tsmctl: nothing found in filespace tsmctl of node node\n");
    Expect("tsmctl list f --all-versions --json | grep -o '\"active\":[a-z]*'; tsmctl list f --all-versions", 0,
           "\"active\":false\n\"active\":true\nfile       0644             4  ");
    Expect("tsmctl list f --all-versions | cut -c 53-", 0, "inactive  f\nactive    f\n");
    Expect("tsmctl list f --at \"$(cat at)\" --json | grep -c '\"active\":false'; tsmctl list f --json", 0,
           "1\n{\"path\":\"f\",\"kind\":\"file\",\"size\":4,");
    Expect("tsmctl delete f --at \"$(cat at)\"", 1, "", "this version is not active");
    Expect("tsmctl delete f --at \"$(date -d '1 hour' '+%F %T')\" && tsmctl list f --all-versions | wc -l", 0,
           "removed f\n2\n");
    Expect("tsmctl delete f", 1, "", "not found");
    Expect("tsmctl delete f --all-versions; tsmctl -q list --all-versions", 0, "removed f (2 versions)\n");
}

TEST_F(Tsmctl, ListingsAreInTheOrderOfTheNames) {
    Expect("mkdir -p d/a; printf 123 > d/a/z; printf 12345 > d/a.b; : > d/0; ln -s xyz d/l; tsmctl -q backup d", 0);
    Expect("head -c 1234567 /dev/zero | tsmctl -q backup - --as s --size 1234567; echo | tsmctl -q backup - --as u", 0);
    Expect("tsmctl list | while read -r kind mode size day time path; do echo $kind $size $path; done", 0,
           "directory - d\nfile 0 d/0\ndirectory - d/a\nfile 3 d/a/z\nfile 5 d/a.b\nlink 3 d/l\n"
           "stream 1234567 s\nstream 1 u\n");
    Expect("tsmctl list 'd/a*' --type file | cut -c 16-29,51-", 0, "             3  d/a/z\n             5  d/a.b\n");
}

// Between the backups: added, changed, deleted, renamed, turned into the other kind and back, the last of a directory
// gone. "only" and the name in front of it go with directories that the library removes when they are empty.
TEST_F(Tsmctl, EachMomentIsTheTreeOfThatMoment) {
    const std::string same = R"(
look() { (cd "$1" && find . -printf '%p %y %m %T@ %l\n' | sort); }
same() { diff <(look $1) <(look $2/t) && diff -r --no-dereference $1 $2/t; })";
    const char* const changes[] = {
        R"(mkdir -p t/a/b/c t/lone t/was/x t/old t/empty
           for f in stay changed gone a/b/c/only lone/only turn was/one was/x/two old/f; do echo 1 > t/$f; done; ln -s x t/link; chmod 0700 t/lone t/a/b)",
        R"(echo 22 > t/changed; rm t/gone t/a/b/c/only t/lone/only t/turn t/link; mkdir -p t/turn t/link/deep
           echo 2 | tee t/turn/in t/link/deep/x; rm -r t/was t/empty; echo 2 > t/was; mv t/old t/new)",
        R"(rm -r t/turn t/link t/was t/a/b; echo 3 > t/turn; ln -s q t/link; mkdir t/was t/more; echo 3 > t/was/three
           echo 3 > t/more/f; mv t/new t/lone/new)",
        "chmod 0750 t; rm -r t/*; mkdir -p t/stay/only/only; echo 4 > t/stay/only/only/f; chmod 0711 t/stay"};
    const char* const told[] = {"19 new, 0 changed, 0 unchanged, 0 gone", "5 new, 7 changed, 3 unchanged, 12 gone",
                                "5 new, 6 changed, 2 unchanged, 10 gone", "3 new, 2 changed, 0 unchanged, 12 gone"};
    int day = 0;
    for (const char* const change : changes) {
        ++day;
        const std::string number = std::to_string(day);
        Expect(std::string(change) + "; cp -a t day" + number, 0, day == 2 ? "2\n" : "");
        const std::string options = day == 3 ? " --to top -j 3" : " --to top";
        Expect("tsmctl backup t" + options + "; sleep 1.1; date '+%F %T' > at" + number + "; sleep 1.1", 0, "",
               told[day - 1]);
        Expect(same + "\ntsmctl restore top/t --to now" + number + " && same day" + number + " now" + number, 0);
    }
    Expect(same + R"~(
        for day in 1 2 3 4; do tsmctl restore top/t --to then$day --at "$(cat at$day)" && same day$day then$day || exit; done)~",
           0);
    Expect("tsmctl backup t --to top", 0, "", " 0 new, 0 changed, 5 unchanged, 0 gone");
}

TEST_F(Tsmctl, WhatABackupLeavesAsItIs) {
    Expect(
        R"(mkdir -p t/shut t/cache/x t/tmp/x t/sub/tmp; touch t/f t/shut/f t/cache/x/f t/tmp/x/f t/sub/tmp/f t/sub/a.o t/b
        printf 'Signature: 8a477f597d28d172789f06886806bc55' > t/cache/CACHEDIR.TAG; printf '%s\n' '# no' '' '/t/tmp/' > not
        echo t > paths; tsmctl -q backup t; tsmctl list > all; cp -a t orig; echo s | tsmctl -q backup - --as t/s; echo x > y)",
        0);
    {
        OtherProgram other(root);
        other.Put("t", "foreign", "", "x");
        other.Put("t/sub", "foreign", "a text", "x");
    }
    const std::vector<std::array<const char*, 4>> cases = {
        {"rm -r t/*", "", "nothing of what is stored", "19"},
        {"rm -r t/*; touch t/other t/lost+found", "", "nothing of what is stored", "19"},
        {"rm -r t; touch t", "", "was a directory", "19"},
        {"rm -r t", "", "t: cannot read", "19"},
        {"rm -r t/*", "--keep-vanished", "0 gone", "19"},
        {"rm -r t/shut/* t/b; chmod 0 t/shut", "", "t/shut: cannot open", "18"},
        {"rm t/cache/x/f t/b", "--exclude-caches", "t/cache is a cache", "18"},
        {"rm -r t/tmp/x t/sub/tmp t/b", "--exclude tmp", "1 gone", "18"},
        {"rm -r t/tmp/x t/sub/tmp t/b", "--exclude sub/t?p", "3 gone", "16"},
        {"rm -r t/tmp t/sub/tmp t/b", "--exclude-from not", "3 gone", "16"},
        {"rm t/sub/* -r; rmdir t/sub; rm t/b", "--exclude none --exclude '*.o'", "3 gone", "16"},
        {"rm t/b; echo new > t/c", "--exclude /t/c/", "1 new, 1 changed, 14 unchanged, 1 gone", "19"},
    };
    for (const auto& [change, options, told, left] : cases) {
        Expect("rm -rf t; cp -a orig t; tsmctl -q backup t --full", 0);
        SCOPED_TRACE(change);
        const Outcome outcome = Run(std::string(change) + "; low $T backup --files-from paths " + options +
                                    " 2>&1; tsmctl list t -q | wc -l");
        EXPECT_NE(outcome.out.find(told), std::string::npos) << outcome.out;
        EXPECT_EQ(outcome.out.substr(outcome.out.rfind('\n', outcome.out.size() - 2) + 1), std::string(left) + "\n")
            << outcome.out;
    }
    Expect(
        "rm -rf t; cp -a orig t; tsmctl -q backup t --full; mv t/b t/c; touch t; faulty 'dsmEndSendObj 3 1' backup t",
        1, "", "t/c: is not stored");
    Expect("tsmctl list t/b && tsmctl -q backup t && tsmctl list t/c && tsmctl list t/b", 1, "  t/c\n",
           "t/b: not found");
    Expect("tsmctl backup ../store --to s; tsmctl list s -q | wc -l", 0, "2\n", "../store is the store of a server");
}

TEST_F(Tsmctl, StatusTellsWhetherTheLastBackupWasComplete) {
    const std::string now = std::to_string(std::time(nullptr));
    const std::string old = std::to_string(std::time(nullptr) - 9 * 3600 - 60);
    struct Case {
        std::string fields, options;
        int status;
        std::string told;
    };
    const Case cases[] = {
        {" failures=0 complete=" + now, "", 0, "complete   20"},
        {" failures=0 complete=" + now, "--critical 5 --format nagios", 0, "TSMCTL OK: 1 complete | 't'=0s;;18000\n"},
        {" failures=2 complete=" + now, "", 1, "  t: 2 failed at 1970-"},
        {" failures=2 complete=" + now, "--format nagios --warning 5", 1, "TSMCTL WARNING: t 2 failed at"},
        {" failures=2", "--format nagios", 2, "TSMCTL CRITICAL: t 2 failed at"},
        {" failures=0 complete=" + old, "--format nagios --warning 9 --critical 10", 1, "WARNING: t last complete at "},
        {" failures=0 complete=" + old, "--format nagios --warning 5 --critical 9", 2, "CRITICAL: t last complete at "},
        {" failures=0 complete=" + old, "--critical 10", 0, "complete   20"},
        {" complete=" + now, "", 1, "t: not ended since 1970-01-01 00:00:50"},
        {" complete=" + now, "--critical 5", 0, "t: not ended since"},
        {" failures=1 complete=" + now, "--format prometheus", 1,
         "tsmctl_last_succeeded{node=\"node\",filespace=\"tsmctl\",path=\"t\"} 0\n"},
        {"", "none", 1, ""},
        {"", "none --format nagios", 3, "TSMCTL UNKNOWN: no backup"}};
    for (const Case& c : cases) {
        OtherProgram(root).Put("t", "f", "", "x");
        OtherProgram(root).Put("%tsmctl-runs", "t", "tsmctl2 d 0700 99.000000000 0 0:0 50.000000000" + c.fields, "");
        const Outcome outcome =
            Run("export TZ=UTC; tsmctl status " + c.options + " | sed 's/=[1-5]s/=0s/'; exit $PIPESTATUS");
        EXPECT_EQ(outcome.status, c.status) << c.fields << c.options;
        EXPECT_NE(outcome.out.find(c.told), std::string::npos) << outcome.out;
    }
    Expect("mkdir u; echo > u/f; tsmctl -q backup u; echo | tsmctl -q backup - --as u/s; tsmctl status u", 0,
           "  u\ncomplete ");
    Expect("faulty 'dsmEndSendObj 1 1' backup u --full", 1, "", "the record of u: is not stored");
    Expect("faulty 'dsmSendObj 2 1' backup u --full; tsmctl status u", 1, "failed     20", "cannot begin");
    Expect(
        "tsmctl -q backup u --to u; faulty 'dsmBeginQuery 1 2041' backup u; tsmctl delete u/u --recursive --yes;"
        "tsmctl status u",
        1, "failed     20", "record of u: ");
    Expect("mkdir k; touch k/f; tsmctl -q backup k; rm -r k; touch k; tsmctl -q backup k; tsmctl status k", 1,
           "failed     20", "was a directory");
    Expect("tsmctl -q backup k --force; tsmctl status k", 1, "", "is recorded");
    Expect("mkdir w; touch w/f; faulty 'dsmSendObj 2 1' -q backup w; tsmctl status w", 1, "never complete",
           "w: cannot");
    Expect("tsmctl -q rename u v; tsmctl delete t 'w*' --recursive --yes > log; tsmctl status", 1, "", "is recorded");
    Expect(
        "mkdir $'\x01' $'\x02'; for d in $'\x01' $'\x02'; do tsmctl -q backup \"$d\"; done;"
        "tsmctl status --format prometheus | grep succeeded | sort | uniq -d | wc -l",
        0, "0\n");
}

TEST_F(Tsmctl, ANameOfTwoKindsLosesNothing) {
    Expect("mkdir -p k/x; touch k/x/in k/y; tsmctl -q backup k; rm k/y; mkdir k/y; echo i > x; tsmctl -q backup x", 0);
    Expect("rm x; mkdir x; echo b > x/b; echo c > x/c", 0);
    Expect("sleep 1.1; date '+%F %T' > at; tsmctl backup x --keep-vanished", 0, "", "a file of this name is stored");
    Expect("echo s | tsmctl -q backup - --as k/x; tsmctl -q verify k", 1, "k/x: directory here, stream",
           "k/x: warning");
    Expect("tsmctl -q backup k --keep-vanished && tsmctl -q verify k", 0, "", "k/x: warning");
    Expect("tsmctl -q backup k --dry-run; tsmctl -q backup k -v; tsmctl restore k --to o", 1,
           "would be removed k/y (the file)\nremoved k/y (the file)\n", "the file is skipped");
    Expect("tsmctl restore x --to dir; cat dir/x/b", 0, "b\n", "the file is skipped");
    Expect(
        "mkdir -p m/n; touch m/n/o; tsmctl -q backup m; rm -r m/n; touch m/n; sleep 1.1; tsmctl -q backup m --full "
        "--keep-vanished 2> log; rm m/n log; tsmctl -q verify m",
        1, "m/n/o: is stored and not here");
    for (const char* const command : {"delete x/b --all-versions", "delete x/b", "rename x/b y", "rename at x/at"}) {
        Expect(std::string("tsmctl ") + command, 1, "", "directory above (x)");
    }
    Expect("tsmctl list x --all-versions | wc -l; tsmctl restore x --to -", 0, "4\ni\n");
    Expect("mv x z; echo new > x; sleep 1.1; tsmctl backup x --keep-vanished", 0, "",
           "a directory of this name is stored");
    Expect("tsmctl restore x --to file; cat file/x", 0, "new\n", "the directory, with all that it holds, is skipped");
    Expect("tsmctl delete x --recursive --all-versions --yes && tsmctl list -q --all-versions | wc -l", 0,
           "removed x/b (1 version)\n");
}

TEST_F(Tsmctl, DeleteTakesWhatWasNamed) {
    Expect(
        "mkdir -p p/d/e 'p/s*r' q; touch p/d/e/f p/d/e/h p/d/g 'p/s*r/x' p/1.a p/2.a p/1.b 'p/%' 'p/*' q/f; tsmctl -q "
        "backup p "
        "q",
        0);
    Expect("tsmctl delete p/d", 1, "", "use --recursive");
    Expect("tsmctl delete 'p/*.a'", 2, "", "without --yes");
    Expect("tsmctl delete 'p/*.a' --yes; tsmctl list p | grep -c '[ab]$'", 0, "removed p/1.a\nremoved p/2.a\n1\n");
    Expect("tsmctl delete --literal 'p/*' && tsmctl delete 'p/%'", 0, "removed p/*\nremoved p/%\n");
    Expect("tsmctl delete q/f 'q/*' q/f --yes", 0, "removed q/f\nremoved q\n");
    Expect("tsmctl delete --recursive p/d --dry-run; tsmctl delete --recursive --yes p/d p/none", 1,
           "removed p/d\nremoved p/d/e/f\nremoved p/d/e/h\nremoved p/d/e\nremoved p/d/g\nremoved p/d\n",
           "p/none: not found");
    Expect("tsmctl list --json | grep -c path", 0, "4\n");
    Expect("tsmctl delete --recursive --yes / -q --all-versions > /dev/null; tsmctl -q list --all-versions | wc -l", 0,
           "0\n");
}

TEST_F(Tsmctl, PathsAndPatternsChoose) {
    Expect("mkdir -p t/a t/b; echo 1 > t/a/x; echo 2 > t/b/x; echo 3 > t/b/y.o; tsmctl -q backup t; cp -a t u", 0);
    Expect("tsmctl -q diff t --local t --exclude t; echo $?; echo 0 >> t/a/x; tsmctl -q diff t --local t --exclude t",
           1, "0\nM t/a/x\n");
    Expect("tsmctl restore 't/*' --exclude '*.o' --to o && rm u/b/y.o && diff -r u o", 0);
    Expect("tsmctl restore t/a/x t/b/x --to p; r=$?; cat p/x; exit $r", 1, "1\n", "t/b/x: has the same name here");
    Expect("tsmctl restore t/a 't/?/x' t/a --strip 0 --to q && diff -r u q/t", 0);
    Expect("tsmctl check t/a/x t --exclude /t/b -q --sums | cut -c 67- | tr -d '\\n'", 0, "x");
    Expect("sleep 1.1; date '+%F %T' > at; sleep 1.1; echo 4 > t/a/x; mv t/b/x t/b/z; tsmctl -q backup t", 0);
    Expect("tsmctl find 'a/?' z --in t | cut -c 53- | tr '\\n' ,", 0,
           "inactive  t/a/x,active    t/a/x,active    t/b/z,");
    Expect("tsmctl -q diff t --at \"$(cat at)\"", 1, "M t/a/x\nM t/b\n- t/b/x\n+ t/b/z\n");
    Expect("tsmctl -q diff t --local t && tsmctl -q diff t --local t --at \"$(cat at)\"", 1,
           "M t/a/x\nM t/b\n+ t/b/z\n- t/b/x\n");
    Expect("tsmctl -q delete t --recursive --at \"$(cat at)\" --dry-run > log; echo $? $(cat log)", 0,
           "1 would be removed t/b/y.o\n", "t/a/x: this version is not active");
    Expect("tsmctl -q delete t --recursive --yes --at \"$(cat at)\" -j 3", 1, "removed t/b/y.o\n", "not active");
    Expect("tsmctl list t --type dir | wc -l; tsmctl restore t/b --to r && diff t/b/z r/b/z", 0, "3\n");
    Expect("tsmctl -q delete t/b/z --all-versions && tsmctl list --all-versions | cut -c 53- | grep /b/", 0,
           "inactive  t/b/x\ninactive  t/b/y.o\n");
}

TEST_F(Tsmctl, ATreeComesOutAsAnArchive) {
    const std::string tar = "tsmctl restore tree --to - --tar -q | tar -x -C out --xattrs --xattrs-include='*'";
    // tar would give what it puts below a directory the directory's default.
    Expect(makeTree + std::string("; python3 -c 'import os; os.removexattr(\"tree/sub/deep\", "
                                  "\"system.posix_acl_default\")'"),
           0);
    Expect(
        "touch eq; python3 -c 'import os; [os.setxattr(\"eq\", \"user.\" + n, b\"\") for n in (\"a=b\", \"%3D\")]'; "
        "tsmctl -q backup eq",
        0);
    Expect("tsmctl -q backup tree; seq 300000 | tsmctl -q backup - --as tree/stream", 0, "", "socket");
    Expect("set -o pipefail; mkdir out; " + tar, 0, "", "set-id bits and capabilities (2 objects)");
    Expect("seq 300000 | cmp - out/tree/stream && rm out/tree/stream && touch -r tree out/tree", 0);
    Expect("tsmctl -q restore eq --to - --tar | tar -t", 0, "eq\n", "whose name tar would change (1 object)");
    const std::string all = compare;
    Expect(all.substr(0, all.rfind("&&")), 0);
    // Other programs do not look for the target of the first link elsewhere.
    Expect(
        "tsmctl restore tree --to - --tar -q 2> err | python3 -c 'import sys; d = sys.stdin.buffer.read(); b = [d[i:i "
        "+ 512] "
        "for i in range(0, len(d), 512)]; print({x[157] > 0 for x in b if x[257:262] == b\"ustar\" and x[156] in "
        "b\"12\"})'",
        0, "{True}\n");
}

TEST_F(Tsmctl, NamesForgeNoLines) {
    const std::string name = "a\nremoved all\x1b[2J\x7f\xc2\x9b\x9b\xe2\x80\xae\xe9\xc3\xa9";
    const std::string shown = "a?removed all?[2J????\xe9\xc3\xa9";
    std::string raw = name;
    raw[1] = '?';
    setenv("N", name.c_str(), 1);
    setenv("TSMCTL_FILESPACE", name.c_str(), 1);
    Expect("mkdir d; touch \"d/$N\" d/x; tsmctl -q backup d; tsmctl list \"d/$N\"; tsmctl filespaces", 0,
           "  d/" + raw + "\n" + raw + "\n");
    Expect("rm d/a*; mkdir \"d/$N\"; tsmctl restore d", 1, "", "tsmctl: d/" + shown + ": a directory of this name");
    Expect("rmdir d/a*; tsmctl verify d", 1, "d/" + shown + ": is stored");
    Expect("tsmctl rename \"d/$N\" y; tsmctl rename y \"d/$N\"; tsmctl grant \"$N\"", 0,
           "renamed d/" + shown + " to y (1 of 1 objects)\nrenamed y to d/" + shown + " (1 of 1 objects)\ngranted " +
               shown + " access to filespace " + shown + "\n");
    Expect("tsmctl delete \"d/$N\"; tsmctl delete-filespace --yes \"$N\"", 0,
           "removed d/" + shown + "\ndeleted filespace " + shown + "\n");
}

TEST_F(Tsmctl, ARenamedTreeKeepsEverything) {
    Expect(makeTree, 0);
    Expect("tsmctl -q backup tree --to a/b; mkdir keep; chmod 0700 keep; tsmctl -q backup keep --to a", 0, "",
           "tree/socket: warning");
    Expect("tsmctl rename a/b/tree a/keep/tree", 0, "renamed a/b/tree to a/keep/tree");
    Expect("tsmctl -q verify tree --to a/keep; tsmctl list a --json | grep '\"a/keep\"'; tsmctl list a/b", 1,
           R"("mode":"0700")", "a/b: not found");
    Expect(
        "tsmctl rename a/keep tree && tsmctl -q verify tree --to tree && tsmctl rename tree/tree new && tsmctl rename "
        "new tree",
        0);
    Expect(
        "tsmctl -q verify tree && tsmctl rename tree/file tree/sub/deep/file && tsmctl restore tree/sub/deep/file --to "
        "-",
        0, "hello");
    Expect("tsmctl rename tree/sub/deep/file tree/sub/big", 2, "", "without --yes");
    Expect("tsmctl rename tree/nothing tree/sub", 1, "", "not empty");
    Expect("tsmctl rename tree/sub tree/nothing/sub", 1, "", "directory above (tree/nothing)");
    Expect("tsmctl rename tree/sub/deep/file tree/sub/big --yes && tsmctl restore tree/sub/big --to -", 0, "hello",
           "is replaced");
    Expect("tsmctl rename tree/none x", 1, "", "not found");
    Expect("mkdir -p cut/s; touch cut/f cut/s/g; tsmctl -q backup cut; faulty 'dsmRenameObj 3 32' rename cut whole", 1,
           "whole (3 of 4 objects)", "stored versions");
    Expect("tsmctl -q list | grep -c '  cut/'; tsmctl -q restore cut --to all && find all/cut -type f | wc -l", 0,
           "1\n1\n");
    Expect("tsmctl rename cut whole && tsmctl list whole | wc -l", 0, "whole (1 of 1 objects)\n4\n");
    Expect("faulty 'dsmRenameObj 1 0' rename tree/sub/big x", 1, "", "tree/sub/big: is not at its new name");
    Expect("mkdir lone; echo > lone/f; chmod 0700 lone; tsmctl -q backup lone; tsmctl -q rename lone/f lone/new/f", 0);
    Expect("tsmctl list lone --json | grep '\"lone\"'", 0, R"("mode":"0700")");
    // What is replaced takes no directory with it that has its new name, and what was not active does not become so.
    Expect("tsmctl -q delete lone --recursive --yes; mkdir -p other/{gone,new}; touch other/{gone,new}/f", 0);
    Expect("chmod 0711 other/new; tsmctl -q backup other; rm -r other/gone; tsmctl -q backup other", 0);
    Expect("tsmctl -q rename other lone --yes", 0, "", "is replaced");
    Expect("tsmctl list lone -q --json | grep -c path; tsmctl list lone/new --json", 0, R"(3
{"path":"lone/new","kind":"directory","size":0,"mode":"0711")");
    Expect("faulty 'dsmRenameObj 3 32' rename lone more -j 1; tsmctl -q rename lone more; tsmctl -q list more | wc -l",
           0, "(1 of 1 objects)\n3\n", "stored versions");
    Expect(R"(mkdir -p s/gone d/u; chmod 0700 d; touch s/gone/{1..9} s/f; tsmctl -q backup s d; rm -r s/gone
        tsmctl -q backup s; TSM_STANDIN_FAULTS='LATENCY dsmRenameObj 100' $T rename s d/u --yes -j 1 & sleep 0.5
        kill $!; wait $!; tsmctl list d --json | grep '"d"')",
           0, R"("mode":"0700")", "stopped");
    Expect("mkdir q; touch q/f q/g; tsmctl -q backup q", 0);
    OtherProgram(root).Put("/q", "e", "", "");
    Expect(
        "faulty 'dsmRenameObj 2 11' rename q r -j 1 2> log; tsmctl -q rename q r; tsmctl list r --type dir | cut -c "
        "53-",
        0, "\nr\nr/e\n");
    // The library may lose a directory when one of its look-ups fails.
    Expect(
        "mkdir -m 0711 m; touch m/f; tsmctl -q backup m; for n in $(seq 12 30); do (faulty \"dsmBeginQuery $n 1\" "
        "rename "
        "m n -j 1 || tsmctl rename m n) > /dev/null 2> err; tsmctl -q list n --type dir --json | grep -o "
        "'\"mode\":\"....'; "
        "tsmctl rename n m > /dev/null; done | sort | uniq -c",
        0, "     19 \"mode\":\"0711\n");
}

// Each as it stands in the help, in the order of the help, on a store that holds what they name.
TEST_F(Tsmctl, TheExamplesOfTheHelpWork) {
    const std::string commands = Run("tsmctl --help | sed -n '/^Commands:/,/^$/s/^  \\([a-z-]*\\) .*/\\1/p'").out;
    ASSERT_NE(commands.find("backup\n"), std::string::npos);
    std::istringstream lines(commands);
    for (std::string command; std::getline(lines, command);) {
        fs::remove_all(root / "store");
        fs::remove_all(root / "work");
        fs::create_directories(root / "work/docs");
        standinSetClock("2024-01-01 00:00:00");
        {
            OtherProgram other(root);
            other.Put("nightly/docs", "a.txt", "", "old");
        }
        standinSetClock(nullptr);
        Expect(
            "echo a > docs/a.txt; echo b > docs/b.txt; tar -c docs | tsmctl -q backup - --as dumps/docs.tar; tsmctl -q "
            "backup docs --filespace old-host",
            0);
        Expect("set -o pipefail; tsmctl " + command + R"( --help | sed -n '/^Examples:/,/^$/s/^  //p' > ../examples
            [ -s ../examples ] || exit 9
            while read -r line; do
                tsmctl -q backup docs --to nightly < /dev/null
                eval "$line" < /dev/null > result || { echo "failed: $line" >&2; exit 9; }
                [[ $line != 'tsmctl list'* || -s result ]] || { echo "nothing found: $line" >&2; exit 9; }
            done < ../examples)",
               0);
    }
}

TEST_F(Tsmctl, ServerCommands) {
    Expect(
        "echo 1 > f; tsmctl -q backup f --filespace two; tsmctl -q backup f; tsmctl filespaces | sort | tr '\\n' ' '",
        0, "tsmctl two ");
    Expect("tsmctl grant OTHER && tsmctl classes --json", 0, R"({"class":")");
    Expect("tsmctl delete-filespace two --yes && tsmctl filespaces -q --json", 0, "{\"filespace\":\"tsmctl\"}\n");
    Expect("tsmctl delete-filespace two --yes", 1, "", "cannot delete the filespace");
}

// A commit that answers 0 and still gives a reason has failed.
TEST_F(Tsmctl, LooksAtTheReasonOfACommit) {
    Expect("echo kept > f; tsmctl backup f", 0);
    for (const char* command : {"backup --full", "delete", "delete --all-versions"}) {
        Expect("TSM_FAULT='dsmEndTxn 1 0 11' \"${T%/*}/faulty_tsmctl\" " + std::string(command) + " f", 1, "", "(-11)");
    }
    Expect("tsmctl restore f --to -", 0, "kept");
}

TEST_F(Tsmctl, ASignalLeavesNothingBehind) {
    Expect("$T backup - --as s < <(sleep 10) & sleep 0.5; kill $!; wait $!", 143, "", "stopped");
    Expect("nohup $T backup - --as n < <(sleep 1; echo n) & sleep 0.5; kill -HUP $!; wait $! && tsmctl list n", 0,
           "n\n");
    Expect(
        "truncate -s 256M big; tsmctl -q backup big; mkdir out; $T restore big --to out & "
        "until ls -A out | grep -q tsmctl || ! kill -0 $!; do :; done; kill $!; wait $!",
        143, "", "stopped");
    EXPECT_TRUE(fs::is_empty(root / "work/out"));
    Expect("tsmctl list s", 1, "", "not found");
}
}  // namespace
