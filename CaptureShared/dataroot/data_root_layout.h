#pragma once
// The inventory of everything the system may write inside a data root, and who writes it. Removal
// walks this inventory, so what the system did not write is never deleted.
#include <filesystem>
#include <string>
#include <variant>
#include <vector>

namespace aimwise::DataRootLayout {

struct Entry;

struct Exact {
    std::string name;
};
struct Pattern {
    std::string prefix;
    std::string suffix;
};

struct File {};
struct DirectoryWholesale {};
struct Directory {
    std::vector<Entry> children;
};

struct Entry {
    std::variant<Exact, Pattern> name;
    std::variant<Directory, File, DirectoryWholesale> kind;
    std::string writer;

    bool matches(const std::string& component) const;
};

struct Survey {
    std::vector<std::string> owned;
    std::vector<std::string> containers;
    std::vector<std::string> unknown;
};

struct Removal {
    std::vector<std::string> failures;
    std::vector<std::string> leftBehind;
    bool rootRemoved = false;
};

const std::vector<Entry>& entries();
bool covers(const std::string& relativePath);
// Paths are absolute. Containers are listed deepest first so they can be removed in order.
Survey survey(const std::filesystem::path& root);
Removal removeOwned(const std::filesystem::path& root, bool machineIsProtected);

}  // namespace aimwise::DataRootLayout
