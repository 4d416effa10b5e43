// What is shown again and again, until Ctrl-C.
#pragma once

#include <functional>
#include <string>
#include <vector>

/// Shows once, or with `watch` every `interval` seconds.
void showAgain(bool watch, double interval, const std::function<void()>& show);

/// The lines that are made for a terminal of so many columns, or with 0 for none. To be watched on a terminal they have a
/// screen of their own, of which only what has changed is drawn anew; a change of its size is seen at once.
void showLines(bool watch, double interval, const std::function<std::vector<std::string>(int)>& make);
