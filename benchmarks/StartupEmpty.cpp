// One of the two libraries that the twin of the start-up benchmark loads. Like the measured ones they need each
// other and the C++ library.

#include <string>

#ifdef STARTUP_BASE
int getLength(std::string const& text) {
    return static_cast<int>((text + text).size());
}
#else
int getLength(std::string const& text);
int getLengthOfLine(std::string const& text) {
    return getLength(text + "\n");
}
#endif
