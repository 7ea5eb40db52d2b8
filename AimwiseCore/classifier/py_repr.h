#pragma once
// Quoting text the way Python's repr() quotes a str: the window content reaches the model in the
// form its training data is full of.
#include <string>

namespace aimwise::PyRepr {

std::string string(const std::string& text);
// {'ocr_text': <repr>, 'description': <repr>}
std::string windowContentDict(const std::string& ocrText, const std::string& description);

}  // namespace aimwise::PyRepr
