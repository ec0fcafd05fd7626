#include "qm/ErrorText.h"

#include <boost/system/system_error.hpp>

std::string errorText(const std::exception& e) {
  std::string text = e.what();
  const auto* boostError = dynamic_cast<const boost::system::system_error*>(&e);
  if (boostError == nullptr) return text;
  const std::string codeText = boostError->code().what();
  if (text.size() < codeText.size() ||
      text.compare(text.size() - codeText.size(), codeText.size(), codeText) != 0)
    return text;
  text.resize(text.size() - codeText.size());
  // Without a prefix, or with an empty one, the text was the bare message.
  if (text == ": ") text.clear();
  return text + boostError->code().message();
}
