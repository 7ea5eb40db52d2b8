#pragma once
// What the OCR helper's exit status means. Its standard output is the text, one line per line read.
namespace aimwise::OCRHelperProtocol {

inline constexpr int read = 0;
inline constexpr int cannotOpen = 2;
inline constexpr int cannotDecode = 3;
inline constexpr int engineFailed = 4;
inline constexpr int usage = 64;

}  // namespace aimwise::OCRHelperProtocol
