#include "tools/preload/report_files.h"

#include "base/json_output.h"
#include "platform/platform.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using k42mc::internal::JsonOutput;
using k42mc::internal::TextOutput;

constinit char folder_path[PATH_MAX] = "";
constinit char folder_identity[64] = ""; // "<device>:<inode>"; empty: any folder will do
constinit char run_id[64] = "";          // what k42mc run knows its own files by
constinit char program[NAME_MAX - sizeof ".4294967295-4294967295.json"] = "";
constinit char stem[NAME_MAX - sizeof ".json"] = "";
constinit pid_t owner = 0; // the process that created the files

// A program with special rights may have the shim linked in: who starts it must not have files made with them.
template <size_t room> bool copy_setting(char (&to)[room], const char *variable) {
    const char *value = secure_getenv(variable);
    if (value == nullptr || strlen(value) >= room)
        return false;
    strcpy(to, value);
    return true;
}

bool is_expected_folder(int descriptor) {
    struct stat status;
    char identity[sizeof folder_identity];
    if (*folder_identity == '\0')
        return true;
    if (fstat(descriptor, &status) != 0)
        return false;
    snprintf(identity, sizeof identity, "%llu:%llu", static_cast<unsigned long long>(status.st_dev),
             static_cast<unsigned long long>(status.st_ino));
    return strcmp(identity, folder_identity) == 0;
}

// The folder for as long as something is opened in it: a descriptor that stays is one more for programs to
// stumble over. Somebody may have put another one in its place.
class OpenFolder {
public:
    OpenFolder() : descriptor_(open(folder_path, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)) {
        if (descriptor_ >= 0 && !is_expected_folder(descriptor_)) {
            ::close(descriptor_);
            descriptor_ = -1;
            errno = ENOENT;
        }
    }
    ~OpenFolder() {
        if (descriptor_ >= 0)
            ::close(descriptor_);
    }
    OpenFolder(const OpenFolder &) = delete;
    OpenFolder &operator=(const OpenFolder &) = delete;

    int descriptor() const { return descriptor_; }

private:
    int descriptor_;
};

// Away from the low numbers, which programs expect to be free.
int move_up(int descriptor) {
    constexpr int lowest = 200;
    const int high = descriptor >= 0 ? fcntl(descriptor, F_DUPFD_CLOEXEC, lowest) : -1;
    if (high < 0)
        return descriptor;
    ::close(descriptor);
    return high;
}

// "server.812.json".
struct StartName {
    explicit StartName(pid_t process) { snprintf(text, sizeof text, "%s.%d.json", program, process); }

    char text[NAME_MAX];
};

void name_stem(unsigned number) {
    const int length = snprintf(stem, sizeof stem, "%s.%d", program, getpid());
    if (number != 0)
        snprintf(stem + length, sizeof stem - static_cast<size_t>(length), "-%u", number);
}

void put_run(JsonOutput &json) {
    json->print("{\"kind\":\"run\",\"id\":");
    json.string(run_id);
    json->print("}\n");
}

void put_start(JsonOutput &json, const char *started) {
    json->print("{\"kind\":\"exec\",\"program\":");
    json.string(started);
    json->print("}\n");
}

// The first lines, without which the files are none that the run would read or remove.
bool introduce() {
    if (*run_id == '\0')
        return true;
    JsonOutput json(json_file.descriptor());
    put_run(json);
    char line[sizeof run_id + 64];
    TextOutput text(line, text_file.descriptor());
    text.print("==========k42mc run %s==========\n", run_id);
    return json->flush() == 0 && text.flush() == 0;
}

off_t size_of(int descriptor) {
    struct stat status;
    return fstat(descriptor, &status) == 0 ? status.st_size : -1;
}

constinit off_t unused_size = 0; // of the JSON, with its first line

// Not every child is told of. One that has its parent's memory leaves the files alone.
bool files_are_own() {
    return owner == getpid() || (!k42mc::internal::platform::borrows_memory() && create_report_files());
}

// Both or neither, under one stem. False with errno set.
bool create_both(int folder) {
    if (!json_file.create(folder))
        return false;
    if (text_file.create(folder)) {
        if (introduce()) {
            unused_size = size_of(json_file.descriptor());
            return true;
        }
        text_file.remove(folder);
        errno = ENOSPC;
    }
    const int cause = errno;
    json_file.remove(folder);
    errno = cause;
    return false;
}

// Below the first stem that is free. False with errno set.
bool create_new() {
    constexpr unsigned most_numbers = 1000;
    const OpenFolder folder;
    if (folder.descriptor() < 0)
        return false;
    for (unsigned number = 0; number < most_numbers; ++number) {
        name_stem(number);
        if (create_both(folder.descriptor()))
            return true;
        if (errno != EEXIST)
            return false;
    }
    return false;
}

// A server may give up the right to make files before it forks.
void tell_of_missing_files(int parents_file, int cause) {
    char reason[128];
    snprintf(reason, sizeof reason, "it can make no file for its report: %s", strerrordesc_np(cause));
    JsonOutput out(parents_file);
    out->print("{\"kind\":\"unchecked\",\"pid\":%d,\"program\":", getpid());
    out.string(program_name());
    out->print(",\"reason\":");
    out.string(reason);
    out->print("}\n");
    out->flush();
}

} // namespace

constinit ReportFile text_file("txt");
constinit ReportFile json_file("json");

bool find_report_folder() {
    if (!copy_setting(folder_path, "K42MC_RUN_OUTPUT"))
        return false;
    copy_setting(folder_identity, "K42MC_RUN_FOLDER");
    copy_setting(run_id, "K42MC_RUN_ID");
    snprintf(program, sizeof program, "%s", program_invocation_short_name);
    return true;
}

const char *program_name() {
    return *program != '\0' ? program : program_invocation_short_name;
}

void ReportFile::name_into(char *name) const {
    snprintf(name, NAME_MAX, "%s.%s", stem, extension_);
}

// Whoever finds the file unlocked may take it that no process is going to write there any more.
bool ReportFile::take(int descriptor) {
    number_ = move_up(descriptor);
    file_.keep(number_);
    created_ = file_.descriptor() >= 0;
    if (created_)
        flock(file_.descriptor(), LOCK_SH | LOCK_NB);
    return created_;
}

bool ReportFile::create(int folder) {
    char name[NAME_MAX];
    name_into(name);
    return take(openat(folder, name,
                       O_WRONLY | O_APPEND | O_CREAT | O_EXCL | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                       0666));
}

void ReportFile::remove(int folder) {
    char name[NAME_MAX];
    name_into(name);
    close();
    unlinkat(folder, name, 0);
}

void ReportFile::move() {
    if (const int another = dup(number_); another >= 0)
        take(another);
}

int ReportFile::release() {
    const int released = file_.descriptor();
    number_ = -1; // lets it be closed
    file_.keep(-1);
    return released;
}

int ReportFile::descriptor() {
    if (!created_ || !files_are_own())
        return -1;
    const int kept = file_.descriptor();
    if (kept >= 0)
        return kept;
    char name[NAME_MAX];
    name_into(name);
    const OpenFolder folder;
    const int again =
        openat(folder.descriptor(), name, O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (file_.is_same(again) && take(again))
        return file_.descriptor();
    if (again >= 0)
        ::close(again);
    return -1;
}

bool create_report_files() {
    owner = getpid();
    text_file.close();
    const int parents = json_file.release();
    const bool created = create_new();
    if (!created && parents >= 0)
        tell_of_missing_files(parents, errno);
    ::close(parents);
    return created;
}

bool write_start(int file, const char *started) {
    JsonOutput json(file);
    put_start(json, started);
    return json->flush() == 0;
}

bool leave_start(pid_t process, const char *started) {
    const OpenFolder folder;
    const int file = *run_id == '\0'
                         ? -1
                         : openat(folder.descriptor(), StartName(process).text,
                                  O_WRONLY | O_APPEND | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (file < 0)
        return false;
    JsonOutput json(file);
    put_run(json);
    put_start(json, started);
    json->flush();
    ::close(file);
    return true;
}

void take_start_back(pid_t process) {
    const OpenFolder folder;
    if (folder.descriptor() >= 0)
        unlinkat(folder.descriptor(), StartName(process).text, 0);
}

bool json_is_unused() {
    return size_of(json_file.descriptor()) == unused_size;
}

void empty_json() {
    (void)!ftruncate(json_file.descriptor(), unused_size);
}

void remove_unused_report_files() {
    if (owner != getpid() || !json_is_unused())
        return;
    const OpenFolder folder;
    if (folder.descriptor() < 0)
        return;
    json_file.remove(folder.descriptor());
    text_file.remove(folder.descriptor());
}
