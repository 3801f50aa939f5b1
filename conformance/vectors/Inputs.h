#pragma once

#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tavix/core/IniFile.h"

// What the vectors are made of: texts that somebody thought of, and random ones. No state but that of "random".
namespace tavix::conformance {

constexpr int kRandomDocuments = 60;
constexpr int kRandomTexts = 120;
constexpr int kRandomPatterns = 200;

std::vector<std::string> TextInputs();
std::vector<std::string> PhpArrayInputs();

// Pattern and name.
std::vector<std::pair<std::string, std::string>> PatternInputs();

// A document of any bytes.
core::IniFile RandomDocument(std::mt19937& random);

// Short runs of the characters that mean something to settings text, errors included.
std::string RandomText(std::mt19937& random);

// Up to eight of the letters.
std::string RandomLetters(std::mt19937& random, const std::string& letters);

}  // namespace tavix::conformance
