// korvanta control: drives one enrolment control object on the portable
// platform, from calls on the command line or JSON lines on standard input.
#pragma once

#include <string>
#include <vector>

int CmdControl(const std::vector<std::string>& args);
