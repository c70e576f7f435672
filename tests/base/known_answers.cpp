#include "known_answers.hpp"

#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace zlk::chord::kat
{

namespace
{

std::vector<known_answer> load()
{
    std::ifstream file(ZLK_SKEIN_VECTORS_FILE);
    if (!file)
    {
        throw std::runtime_error("cannot open " ZLK_SKEIN_VECTORS_FILE);
    }
    std::vector<known_answer> answers;
    std::string line;
    while (std::getline(file, line))
    {
        if (line.empty() || line[0] == '#')
        {
            continue;
        }
        std::istringstream fields(line);
        known_answer a;
        std::size_t length = 0;
        std::string input, digest, words;
        if (!(fields >> a.name >> length >> input >> digest >> words >> a.text))
        {
            throw std::runtime_error("malformed vector line: " + line);
        }
        a.input = input == "-" ? std::vector<std::uint8_t>{} : from_hex(input);
        a.digest = from_hex(digest);
        if (a.input.size() != length || a.digest.size() != 32 ||
            std::sscanf(words.c_str(), "%16" SCNx64 ",%16" SCNx64 ",%16" SCNx64 ",%16" SCNx64, &a.words[0],
                        &a.words[1], &a.words[2], &a.words[3]) != 4)
        {
            throw std::runtime_error("inconsistent vector line: " + line);
        }
        answers.push_back(std::move(a));
    }
    return answers;
}

} // namespace

std::vector<std::uint8_t> from_hex(const std::string & hex)
{
    if (hex.size() % 2 != 0)
    {
        throw std::runtime_error("odd hex length");
    }
    std::vector<std::uint8_t> bytes;
    for (std::size_t i = 0; i < hex.size(); i += 2)
    {
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

const std::vector<known_answer> & known_answers()
{
    static const std::vector<known_answer> answers = load();
    return answers;
}

const known_answer & known_answer_named(const std::string & name)
{
    for (const auto & a : known_answers())
    {
        if (a.name == name)
        {
            return a;
        }
    }
    throw std::runtime_error("no vector named " + name);
}

} // namespace zlk::chord::kat
