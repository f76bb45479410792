// What the matrices find and must be so, each with its reason: anything else is a finding.

#pragma once

#include <string>

// Whether a text that says what is wrong after a trouble ("write 2 EIO (/data/file)") is known.
bool is_known(const std::string& command, const std::string& trouble, const std::string& text);
