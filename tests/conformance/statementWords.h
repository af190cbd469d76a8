#ifndef CONFORMANCE_STATEMENTWORDS_H
#define CONFORMANCE_STATEMENTWORDS_H

#include "testVector.h"

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace conformance
{

/// What is wrong with a statement; the reader adds where it stands.
class statementError : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

/// The words of one statement, taken one after the other. A colon is a word of its own.
class statementWords
{
  public:
    explicit statementWords(std::string const& text);

    bool atEnd() const { return next == words.size(); }
    /// Takes the next word when it is this one.
    bool accept(std::string const& word);
    void require(std::string const& word);
    void requireEnd() const;

    std::string take(std::string const& what);
    /// A decimal number from 0 on, with or without a fraction.
    double takeSeconds();
    unsigned takeCount(std::string const& what);
    /// A hexadecimal number of at most so many digits.
    std::uint32_t takeHex(std::string const& what, std::size_t digits);
    /// All that is left, as bytes; at least one.
    bytes takeBytes();
    /// `id HHHH flags HHHH [data HHHH...] [data-checksum HHHH]`.
    messageFields takeFields();

  private:
    std::string const& current() const { return words[next]; }
    bool nextIsHex() const;
    void takeData(messageFields& fields);

    std::vector<std::string> words;
    std::size_t next = 0;
};

} // namespace conformance

#endif
