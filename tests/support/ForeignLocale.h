#pragma once

#include <locale>
#include <string>

namespace tavix::test {

// Makes the process's locale one that groups digits ("1,000") for the length of a scope: text for machines must not
// follow it.
class ForeignLocale {
 public:
  ForeignLocale() : _before(std::locale::global(std::locale(std::locale::classic(), new Digits))) {}
  ~ForeignLocale() { std::locale::global(_before); }

  ForeignLocale(const ForeignLocale&) = delete;
  ForeignLocale& operator=(const ForeignLocale&) = delete;

 private:
  class Digits : public std::numpunct<char> {
   protected:
    char do_thousands_sep() const override { return ','; }
    std::string do_grouping() const override { return "\3"; }
  };

  const std::locale _before;
};

}  // namespace tavix::test
