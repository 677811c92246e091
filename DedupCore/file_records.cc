#include "file_records.h"

#include <sys/stat.h>

#include <cstring>

#include <nlohmann/json.hpp>

#include "path_text.h"

namespace dedup {

bool FileStatus::isRegularFile() const { return (mode & S_IFMT) == S_IFREG; }
bool FileStatus::isDirectory() const { return (mode & S_IFMT) == S_IFDIR; }
bool FileStatus::isSymbolicLink() const { return (mode & S_IFMT) == S_IFLNK; }

bool FileStatus::isSameVersion(const FileStatus& other) const {
    return device == other.device && inode == other.inode && size == other.size &&
           modified == other.modified && changed == other.changed;
}

SystemError::SystemError(std::string call_, std::string path_, int code_)
    : std::runtime_error(call_ + "(" + path_ + "): " + std::strerror(code_)),
      call(std::move(call_)),
      path(std::move(path_)),
      code(code_) {}

void to_json(nlohmann::json& j, const Timestamp& t) {
    j = {{"seconds", t.seconds}, {"nanoseconds", t.nanoseconds}};
}
void from_json(const nlohmann::json& j, Timestamp& t) {
    j.at("seconds").get_to(t.seconds);
    j.at("nanoseconds").get_to(t.nanoseconds);
}

void to_json(nlohmann::json& j, const FileStatus& s) {
    j = {{"device", s.device}, {"inode", s.inode}, {"size", s.size}, {"modified", s.modified},
         {"changed", s.changed}, {"mode", s.mode},   {"links", s.links}, {"uid", s.uid},
         {"gid", s.gid},         {"flags", s.flags}};
}
void from_json(const nlohmann::json& j, FileStatus& s) {
    j.at("device").get_to(s.device);
    j.at("inode").get_to(s.inode);
    j.at("size").get_to(s.size);
    j.at("modified").get_to(s.modified);
    j.at("changed").get_to(s.changed);
    j.at("mode").get_to(s.mode);
    j.at("links").get_to(s.links);
    j.at("uid").get_to(s.uid);
    j.at("gid").get_to(s.gid);
    j.at("flags").get_to(s.flags);
}

void to_json(nlohmann::json& j, const FileTimes& t) {
    j = {{"created", t.created}, {"modified", t.modified}, {"accessed", t.accessed}};
    if (t.added) j["added"] = *t.added;
}
void from_json(const nlohmann::json& j, FileTimes& t) {
    j.at("created").get_to(t.created);
    j.at("modified").get_to(t.modified);
    j.at("accessed").get_to(t.accessed);
    t.added.reset();
    if (auto it = j.find("added"); it != j.end() && !it->is_null()) t.added = it->get<Timestamp>();
}

void to_json(nlohmann::json& j, const CloneInfo& c) {
    j = {{"privateSize", c.privateSize}, {"cloneID", c.cloneID}, {"references", c.references}};
}
void from_json(const nlohmann::json& j, CloneInfo& c) {
    j.at("privateSize").get_to(c.privateSize);
    j.at("cloneID").get_to(c.cloneID);
    j.at("references").get_to(c.references);
}

void to_json(nlohmann::json& j, const ScannedFile& f) {
    j = {{"path", pathText(f.path)}, {"status", f.status}};
    if (f.clones) j["clones"] = *f.clones;
}
void from_json(const nlohmann::json& j, ScannedFile& f) {
    f.path = pathFromText(j.at("path").get<std::string>());
    j.at("status").get_to(f.status);
    f.clones.reset();
    if (auto it = j.find("clones"); it != j.end() && !it->is_null()) f.clones = it->get<CloneInfo>();
}

}  // namespace dedup
