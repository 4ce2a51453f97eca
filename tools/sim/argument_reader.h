// Walks a command line's arguments one at a time. An option (an argument
// that begins with '-') takes its value either after '=' in the same argument
// or as the next argument; anything else is a positional argument. Reads the caller's vector, which
// must outlive it; one thread.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace zel::sim {

class ArgumentReader {
 public:
  explicit ArgumentReader(const std::vector<std::string>& args) : mArgs(args) {}

  // Moves to the next argument; false when there is none.
  bool Next();
  bool IsOption() const { return mIsOption; }
  // The option's name without its value, or the positional argument.
  const std::string& Name() const { return mName; }
  bool HasInlineValue() const { return mInlineValue; }
  // The option's value: the text after '=', or else the next argument
  // (consumed); false when there is neither.
  bool TakeValue(std::string& value);

 private:
  const std::vector<std::string>& mArgs;
  size_t mIndex = 0;
  std::string mName;
  std::string mValue;
  bool mInlineValue = false;
  bool mIsOption = false;
};

}  // namespace zel::sim
