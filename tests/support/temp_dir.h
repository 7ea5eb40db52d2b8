#pragma once
// A private temporary directory removed with its contents when the object goes away.
#include <filesystem>
#include <string>

namespace aimwise::testing {

class TempDir {
public:
    explicit TempDir(const std::string& prefix = "aimwise-test");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

// Writes `contents` to `path`, creating parent directories.
void writeFile(const std::filesystem::path& path, const std::string& contents);
std::string readFile(const std::filesystem::path& path);

}  // namespace aimwise::testing
