#include <fcntl.h>
#include <grp.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <tests/record/record_test_util.h>

#include <csignal>
#include <functional>

namespace {

const std::string kOld = "record {\n  key: \"conv1\"\n  value {\n    offset_d: 1\n  }\n}\n";
const std::string kNew = "record {\n  key: \"conv1\"\n  value {\n    scale_d: 0.5\n    offset_d: 3\n  }\n}\n";

int Update(const std::string& file) {
    const float scale = 0.5f;
    const int offset = 3;
    return KestTfOp::WriteDataToRecordFile(&scale, &offset, "conv1", file, "hide");
}

/// The result of `body` in a child process without root's rights.
int AsOrdinaryUser(const std::function<int()>& body) {
    const pid_t child = fork();
    if (child == 0) {
        const bool isReady = geteuid() != 0 || (setgroups(0, nullptr) == 0 && setgid(65534) == 0 && setuid(65534) == 0);
        _exit(isReady ? body() : 99);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(RecordFile, Permissions) {
    const struct {
        const char* why;
        mode_t file, directory;
        rlim_t maxSize;
        int status;
    } rows[] = {{"all allowed", 0666, 0777, RLIM_INFINITY, STATUS_OK},
                {"unreadable file", 0222, 0777, RLIM_INFINITY, RECORD_OPEN_ERROR},
                {"read-only file in a writable directory", 0444, 0777, RLIM_INFINITY, RECORD_OPEN_ERROR},
                {"directory takes no new file: in place", 0666, 0555, RLIM_INFINITY, STATUS_OK},
                {"directory that cannot be listed", 0666, 0333, RLIM_INFINITY, STATUS_OK},
                {"directory that cannot be searched", 0666, 0666, RLIM_INFINITY, RECORD_PATH_ERROR},
                {"limit of the file size", 0666, 0777, kOld.size(), RECORD_OPEN_ERROR},
                {"limit of the file size, in place", 0666, 0555, kOld.size(), RECORD_OPEN_ERROR}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        TempDir directory;
        const std::string file = directory / "record.txt";
        WriteText(file, kOld);
        chmod(file.c_str(), row.file);
        chmod(directory.Path().c_str(), row.directory);
        const int status = AsOrdinaryUser([&] {
            const rlimit limit = {row.maxSize, row.maxSize};
            std::signal(SIGXFSZ, SIG_IGN);
            return setrlimit(RLIMIT_FSIZE, &limit) == 0 ? Update(file) : 98;
        });
        chmod(directory.Path().c_str(), 0777);
        chmod(file.c_str(), 0666);
        EXPECT_EQ(row.status, status);
        EXPECT_EQ(status == STATUS_OK ? kNew : kOld, ReadText(file));
        EXPECT_EQ(1, directory.NumFiles());
    }
}

TEST(RecordFile, LinksModeAndOwnerStay) {
    TempDir directory;
    const std::string file = directory / "record.txt", link = directory / "link", link2 = directory / "link2";
    WriteText(file, kOld);
    chmod(file.c_str(), 0640);
    const bool isRoot = chown(file.c_str(), 1234, 2345) == 0;
    std::filesystem::create_symlink("record.txt", link);
    std::filesystem::create_symlink(link, link2);
    EXPECT_EQ(STATUS_OK, Update(link2));
    EXPECT_EQ(kNew, ReadText(file));
    EXPECT_TRUE(std::filesystem::is_symlink(link) && std::filesystem::is_symlink(link2));
    struct stat status = {};
    ASSERT_EQ(0, stat(file.c_str(), &status));
    EXPECT_EQ(0640u, status.st_mode & 07777);
    EXPECT_TRUE(!isRoot || (status.st_uid == 1234 && status.st_gid == 2345));

    Root root;
    std::filesystem::create_symlink("new.txt", directory / "dangling");
    const mode_t mask = umask(027);
    EXPECT_EQ(STATUS_OK, WriteToRecordFile(root, directory / "dangling"));
    umask(mask);
    ASSERT_EQ(0, stat((directory / "new.txt").c_str(), &status));
    EXPECT_EQ(0640u, status.st_mode & 07777) << "0666 but the mask";
    EXPECT_EQ(0, status.st_size) << "a root without entries is an empty file";
    EXPECT_TRUE(std::filesystem::is_symlink(directory / "dangling"));
    std::filesystem::create_symlink("loop", directory / "loop");
    EXPECT_EQ(RECORD_OPEN_ERROR, WriteToRecordFile(root, directory / "loop"));
}

TEST(RecordFile, OddPaths) {
    TempDir directory;
    Root root, parsed;
    root.AddRecord()->SetKey("a");
    const std::string longName = directory / std::string(255, 'n');
    EXPECT_EQ(STATUS_OK, WriteToRecordFile(root, longName));
    EXPECT_EQ(root.Dump(), ReadText(longName));
    const std::pair<std::string, int> rows[] = {// and what reading gives
                                                {"", RECORD_PATH_ERROR},
                                                {directory / "", RECORD_OPEN_ERROR},
                                                {directory / "none/x", RECORD_PATH_ERROR},
                                                {longName + "n", RECORD_PATH_ERROR},
                                                {longName + "/x", RECORD_PATH_ERROR},
                                                {std::string(5000, 'x'), RECORD_PATH_ERROR},
                                                {"/dev/full", RECORD_OPEN_ERROR}};
    for (const auto& [path, status] : rows) {
        EXPECT_EQ(RECORD_OPEN_ERROR, WriteToRecordFile(root, path)) << path;
        EXPECT_EQ(status, kest_tf::ParseRecordFile(path, parsed)) << path;
    }
    EXPECT_EQ(STATUS_OK, Update("/dev/null"));
    EXPECT_EQ(1, directory.NumFiles());
    const std::string pipe = directory / "pipe";
    ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600));
    const int reader = open(pipe.c_str(), O_RDWR);
    EXPECT_EQ(STATUS_OK, WriteToRecordFile(root, pipe));
    std::string text(1000, ' ');
    text.resize(static_cast<std::size_t>(read(reader, text.data(), text.size())));
    EXPECT_EQ(root.Dump(), text);
    close(reader);
}

}  // namespace
