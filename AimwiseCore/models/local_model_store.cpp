#include "AimwiseCore/models/local_model_store.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "AimwiseCore/models/sha256.h"
#include "CaptureShared/common/atomic_file.h"
#include "CaptureShared/dataroot/data_paths.h"

namespace aimwise {

namespace {

using json = nlohmann::json;

struct Identity {
    int64_t sizeBytes = 0;
    int64_t mtimeNs = 0;
    int64_t ctimeNs = 0;
    uint64_t inode = 0;
    uint64_t device = 0;
    bool operator==(const Identity&) const = default;
};

std::optional<Identity> identityOf(const std::filesystem::path& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
    return Identity{static_cast<int64_t>(info.st_size),
                    static_cast<int64_t>(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec,
                    static_cast<int64_t>(info.st_ctim.tv_sec) * 1'000'000'000 + info.st_ctim.tv_nsec,
                    static_cast<uint64_t>(info.st_ino), static_cast<uint64_t>(info.st_dev)};
}

// A member's text, or "" when it is missing or not text: a hand-edited file must not throw.
std::string textMember(const json& object, const char* key) {
    const auto found = object.find(key);
    return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

std::string lowercased(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

json readJSON(const std::filesystem::path& path) {
    try {
        json value = json::parse(readWholeFile(path, ReadLimit::setting), nullptr, false);
        return value.is_object() ? value : json::object();
    } catch (const std::exception&) {
        return json::object();
    }
}

void writeJSON(const std::filesystem::path& path, const json& value) {
    std::filesystem::create_directories(path.parent_path());
    std::filesystem::permissions(path.parent_path(), std::filesystem::perms::owner_all);
    writeFileAtomically(path, value.dump(2) + "\n", 0600);
}

std::optional<LocalModelManifest> decodeManifest(const json& entry) {
    if (!entry.is_object() || !entry.contains("model") || !entry["model"].is_string()) return std::nullopt;
    LocalModelManifest manifest;
    manifest.model = entry["model"].get<std::string>();
    manifest.fileName = textMember(entry, "file_name");
    if (manifest.fileName.empty()) return std::nullopt;
    if (entry.contains("files") && entry["files"].is_array())
        for (const json& file : entry["files"]) {
            if (!file.is_object() || !file.contains("name") || !file["name"].is_string()) continue;
            manifest.files.push_back({file["name"].get<std::string>(),
                                      file.contains("size_bytes") && file["size_bytes"].is_number_integer()
                                          ? file["size_bytes"].get<int64_t>()
                                          : -1,
                                      lowercased(textMember(file, "sha256"))});
        }
    return manifest;
}

json encodeManifest(const LocalModelManifest& manifest) {
    json files = json::array();
    for (const auto& file : manifest.files)
        files.push_back({{"name", file.name}, {"size_bytes", file.sizeBytes}, {"sha256", lowercased(file.sha256)}});
    return {{"model", manifest.model}, {"file_name", manifest.fileName}, {"files", files}};
}

bool recordMatches(const json& record, const LocalModelManifest::File& file, const Identity& now) {
    if (!record.is_object()) return false;
    auto integer = [&](const char* key) -> std::optional<int64_t> {
        if (!record.contains(key) || !record[key].is_number_integer()) return std::nullopt;
        return record[key].get<int64_t>();
    };
    auto sizeBytes = integer("size_bytes"), mtime = integer("mtime_ns"), ctime = integer("ctime_ns"),
         inode = integer("inode"), device = integer("device");
    if (!sizeBytes || !mtime || !ctime || !inode || !device) return false;
    Identity recorded{*sizeBytes, *mtime, *ctime, static_cast<uint64_t>(*inode), static_cast<uint64_t>(*device)};
    return recorded == now && now.sizeBytes == file.sizeBytes && !file.sha256.empty() &&
           lowercased(textMember(record, "sha256")) == file.sha256;
}

}  // namespace

LocalModelStore::LocalModelStore(std::filesystem::path modelsDirectory) : directory_(std::move(modelsDirectory)) {}

std::filesystem::path LocalModelStore::defaultModelsDirectory() { return DataPaths::supportDir() / "models"; }

std::optional<LocalModelManifest> LocalModelStore::manifest(const std::string& model) const {
    json all = readJSON(manifestsPath());
    if (!all.contains("models") || !all["models"].is_array()) return std::nullopt;
    for (const json& entry : all["models"])
        if (entry.is_object() && textMember(entry, "model") == model) return decodeManifest(entry);
    return std::nullopt;
}

void LocalModelStore::saveManifest(const LocalModelManifest& manifest) const {
    json all = readJSON(manifestsPath());
    json models = json::array();
    if (all.contains("models") && all["models"].is_array())
        for (const json& entry : all["models"])
            if (!(entry.is_object() && textMember(entry, "model") == manifest.model)) models.push_back(entry);
    models.push_back(encodeManifest(manifest));
    writeJSON(manifestsPath(), {{"models", models}});
}

LocalModelDiskState LocalModelStore::diskState(const LocalModelManifest& manifest) const {
    if (manifest.files.empty()) {
        if (!identityOf(directory_ / manifest.fileName)) return {LocalModelDiskState::Missing{}};
        return {LocalModelDiskState::NeedsVerification{{manifest.fileName}}};
    }
    json records = readJSON(verificationsPath());
    const json* files = records.contains("files") && records["files"].is_object() ? &records["files"] : nullptr;
    std::vector<std::string> unverified;
    for (const auto& file : manifest.files) {
        std::optional<Identity> identity = identityOf(directory_ / file.name);
        if (!identity) return {LocalModelDiskState::Missing{}};
        if (!files || !files->contains(file.name) || !recordMatches((*files)[file.name], file, *identity))
            unverified.push_back(file.name);
    }
    if (unverified.empty()) return {LocalModelDiskState::Verified{}};
    return {LocalModelDiskState::NeedsVerification{std::move(unverified)}};
}

LocalModelStore::VerificationResult LocalModelStore::verify(const LocalModelManifest& manifest, int64_t nowMs) const {
    VerificationResult result;
    json records = readJSON(verificationsPath());
    if (!records.contains("files") || !records["files"].is_object()) records["files"] = json::object();
    for (const auto& file : manifest.files) {
        std::filesystem::path path = directory_ / file.name;
        std::optional<Identity> before = identityOf(path);
        if (!before) {
            result.missing.push_back(file.name);
            records["files"].erase(file.name);
            continue;
        }
        std::optional<std::string> digest = before->sizeBytes == file.sizeBytes ? sha256OfFile(path) : std::nullopt;
        // A file that changed while it was being read proves nothing.
        if (!digest || *digest != lowercased(file.sha256) || identityOf(path) != before) {
            result.mismatched.push_back(file.name);
            records["files"].erase(file.name);
            continue;
        }
        records["files"][file.name] = {{"size_bytes", before->sizeBytes}, {"mtime_ns", before->mtimeNs},
                                       {"ctime_ns", before->ctimeNs},     {"inode", before->inode},
                                       {"device", before->device},        {"sha256", *digest},
                                       {"verified_at_ms", nowMs}};
    }
    writeJSON(verificationsPath(), records);
    return result;
}

bool LocalModelStore::recordVerified(const LocalModelManifest::File& file, const std::string& sha256,
                                     int64_t nowMs) const {
    const std::optional<Identity> identity = identityOf(directory_ / file.name);
    if (!identity || identity->sizeBytes != file.sizeBytes || lowercased(sha256) != lowercased(file.sha256))
        return false;
    json records = readJSON(verificationsPath());
    if (!records.contains("files") || !records["files"].is_object()) records["files"] = json::object();
    records["files"][file.name] = {{"size_bytes", identity->sizeBytes}, {"mtime_ns", identity->mtimeNs},
                                   {"ctime_ns", identity->ctimeNs},     {"inode", identity->inode},
                                   {"device", identity->device},        {"sha256", lowercased(sha256)},
                                   {"verified_at_ms", nowMs}};
    writeJSON(verificationsPath(), records);
    return true;
}

std::optional<std::string> LocalModelStore::sha256OfFile(const std::filesystem::path& path) {
    // A pipe or a device in the model's place would be waited on or read without end.
    int fd = -1;
    try {
        fd = openRegularFileForReading(path);
    } catch (const std::filesystem::filesystem_error&) {
        return std::nullopt;
    }
    std::unique_ptr<FILE, int (*)(FILE*)> file(::fdopen(fd, "rb"), std::fclose);
    if (!file) {
        ::close(fd);
        return std::nullopt;
    }
    Sha256 digest;
    std::vector<unsigned char> buffer(1 << 20);
    size_t count;
    while ((count = std::fread(buffer.data(), 1, buffer.size(), file.get())) > 0)
        if (!digest.update(buffer.data(), count)) return std::nullopt;
    if (std::ferror(file.get())) return std::nullopt;
    return digest.hexDigest();
}

}  // namespace aimwise
