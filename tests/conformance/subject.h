#ifndef CONFORMANCE_SUBJECT_H
#define CONFORMANCE_SUBJECT_H

#include "reactions.h"
#include "testVector.h"

#include <string>

namespace conformance
{

/// The side under test: what a vector can do to it, and what it has done.
class subject
{
  public:
    subject() = default;
    subject(subject const&) = delete;
    subject& operator=(subject const&) = delete;
    virtual ~subject() = default;

    /// Why a vector cannot be played here; empty when it can.
    virtual std::string whyNot(testVector const& vector) const = 0;

    /// Before and after each vector.
    virtual void begin(portSettings const& settings) = 0;
    virtual void end() = 0;

    /// Puts bytes on the line towards it; returns when they have left.
    virtual void put(bytes const& content) = 0;

    // What its application is to do; `request` is the statement as it stands in the file.
    virtual void send(sendMessage const& message, std::string const& request) = 0;
    virtual void reject(sendReject const& rejected, std::string const& request) = 0;
    virtual void filler(std::string const& request) = 0;

    /// The bytes of a message that it would send, without sending it.
    virtual bytes imageOf(messageFields const& fields) const = 0;

    /// False when only the line can be seen.
    virtual bool showsApplication() const = 0;
    /// What stands for PORT in log lines.
    virtual std::string portNumber() const = 0;
    virtual duration characterTime() const = 0;

    reactions seen;
};

} // namespace conformance

#endif
