// The Skein-256-256 known-answer file of data/skein256.txt, read once per test program.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zlk::chord::kat
{

struct known_answer
{
    std::string name;
    std::vector<std::uint8_t> input;
    std::vector<std::uint8_t> digest;
    std::uint64_t words[4];
    std::string text;
};

// Throw, and so fail the calling test, when the file is missing or a line is malformed.
const std::vector<known_answer> & known_answers();
const known_answer & known_answer_named(const std::string & name);

std::vector<std::uint8_t> from_hex(const std::string & hex);

} // namespace zlk::chord::kat
