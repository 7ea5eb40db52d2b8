#include "AimwiseCore/models/model_catalogue.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "AimwiseCore/models/sha256.h"
#include "CaptureShared/common/text.h"

namespace aimwise {

namespace {

using json = nlohmann::json;

bool hasScheme(std::string_view url) {
    return url.starts_with("https://") || url.starts_with("http://") || url.starts_with("file:///");
}

// A bare name: a catalogue must not be able to write outside the models directory.
bool isPlainFileName(std::string_view name) {
    return !name.empty() && name.size() <= 255 && name.front() != '.' && name.find('/') == std::string_view::npos &&
           name.find('\0') == std::string_view::npos;
}

std::string lowercased(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

ModelCatalogue::File decodeFile(const json& value, const std::string& where) {
    if (!value.is_object()) throw ModelCatalogueError(where + " is not an object");
    ModelCatalogue::File file;
    if (!value.contains("file") || !value["file"].is_string() || !isPlainFileName(value["file"].get<std::string>()))
        throw ModelCatalogueError(where + " needs \"file\", a plain file name");
    file.name = value["file"].get<std::string>();
    if (!value.contains("url") || !value["url"].is_string() || !hasScheme(value["url"].get<std::string>()))
        throw ModelCatalogueError(where + " needs \"url\", starting with https://, http:// or file:///");
    file.url = value["url"].get<std::string>();
    if (value.contains("size_bytes") && !value["size_bytes"].is_null()) {
        if (!value["size_bytes"].is_number_integer() || value["size_bytes"].get<int64_t>() <= 0)
            throw ModelCatalogueError(where + ": \"size_bytes\" must be a positive whole number");
        file.sizeBytes = value["size_bytes"].get<int64_t>();
    }
    if (value.contains("sha256") && !value["sha256"].is_null()) {
        const std::string digest = value["sha256"].is_string() ? value["sha256"].get<std::string>() : "";
        if (!digest.empty()) {
            if (!Sha256::isDigestText(digest))
                throw ModelCatalogueError(where + ": \"sha256\" must be 64 hexadecimal digits");
            file.sha256 = lowercased(digest);
        }
    }
    return file;
}

}  // namespace

std::vector<ModelCatalogue::File> ModelCatalogue::Entry::files() const {
    std::vector<File> all{model};
    if (projector) all.push_back(*projector);
    return all;
}

std::vector<std::string> ModelCatalogue::Entry::gaps() const {
    std::vector<std::string> gaps;
    for (const File& file : files()) {
        if (!file.sha256 || !file.sizeBytes)
            gaps.push_back(file.name + " has no " +
                           (file.sha256 ? "size" : file.sizeBytes ? "SHA-256 digest" : "size or SHA-256 digest"));
    }
    return gaps;
}

ModelCatalogue ModelCatalogue::parse(std::string_view text, const std::string& source) {
    const json top = json::parse(text, nullptr, false);
    if (top.is_discarded()) throw ModelCatalogueError(source + " is not valid JSON");
    if (!top.is_object() || !top.contains("models") || !top["models"].is_array())
        throw ModelCatalogueError(source + " must be a JSON object with a \"models\" array");
    ModelCatalogue catalogue;
    size_t index = 0;
    for (const json& value : top["models"]) {
        const std::string where = source + ", model " + std::to_string(++index);
        if (!value.is_object() || !value.contains("name") || !value["name"].is_string() ||
            trimWhitespaceAndNewlines(value["name"].get<std::string>()).empty())
            throw ModelCatalogueError(where + " needs a \"name\"");
        Entry entry;
        entry.name = trimWhitespaceAndNewlines(value["name"].get<std::string>());
        // The name reaches settings, unit files and terminals.
        if (std::any_of(entry.name.begin(), entry.name.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }))
            throw ModelCatalogueError(where + ": the name holds a control character");
        const std::string named = source + ", " + entry.name;
        if (catalogue.find(entry.name)) throw ModelCatalogueError(named + " is listed twice");
        if (value.contains("summary") && value["summary"].is_string()) entry.summary = value["summary"].get<std::string>();
        if (!value.contains("model")) throw ModelCatalogueError(named + " needs \"model\", the file the server loads");
        entry.model = decodeFile(value["model"], named + ", model file");
        if (value.contains("projector") && !value["projector"].is_null())
            entry.projector = decodeFile(value["projector"], named + ", projector");
        if (entry.projector && entry.projector->name == entry.model.name)
            throw ModelCatalogueError(named + ": the model and its projector need different file names");
        catalogue.entries.push_back(std::move(entry));
    }
    return catalogue;
}

const ModelCatalogue::Entry* ModelCatalogue::find(std::string_view name) const {
    for (const Entry& entry : entries)
        if (entry.name == name) return &entry;
    return nullptr;
}

ModelCatalogue ModelCatalogue::mergedWith(const ModelCatalogue& overrides) const {
    ModelCatalogue merged = *this;
    for (const Entry& entry : overrides.entries) {
        auto same = std::find_if(merged.entries.begin(), merged.entries.end(),
                                 [&](const Entry& e) { return e.name == entry.name; });
        if (same != merged.entries.end())
            *same = entry;
        else
            merged.entries.push_back(entry);
    }
    return merged;
}

namespace ModelMirror {

std::string apply(const std::string& url, const std::string& fileName, const std::string& mirror) {
    std::string base = trimWhitespaceAndNewlines(mirror);
    if (base.empty()) return url;
    if (const size_t at = base.find("{file}"); at != std::string::npos) return base.replace(at, 6, fileName);
    while (base.ends_with('/')) base.pop_back();
    const size_t scheme = url.find("://");
    const size_t path = scheme == std::string::npos ? std::string::npos : url.find('/', scheme + 3);
    return base + (path == std::string::npos ? "/" + fileName : url.substr(path));
}

}  // namespace ModelMirror
}  // namespace aimwise
