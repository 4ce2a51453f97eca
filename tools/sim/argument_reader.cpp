#include "tools/sim/argument_reader.h"

namespace zel::sim {

bool ArgumentReader::Next() {
  if (mIndex >= mArgs.size()) return false;
  const std::string& arg = mArgs[mIndex++];
  const size_t equals = arg.find('=');
  // A path that begins with '-' can still be given as "./-name".
  mIsOption = arg.size() > 1 && arg[0] == '-';
  mName = mIsOption ? arg.substr(0, equals) : arg;
  mInlineValue = mIsOption && equals != std::string::npos;
  mValue = mInlineValue ? arg.substr(equals + 1) : std::string();
  return true;
}

bool ArgumentReader::TakeValue(std::string& value) {
  if (mInlineValue) {
    value = mValue;
    return true;
  }
  if (mIndex >= mArgs.size()) return false;
  value = mArgs[mIndex++];
  return true;
}

}  // namespace zel::sim
