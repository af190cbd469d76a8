#ifndef CONFORMANCE_PORTSUBJECT_H
#define CONFORMANCE_PORTSUBJECT_H

#include "subject.h"

#include <memory>

namespace conformance
{

/// This library's own port on a pseudo-terminal, a new one for each vector.
class portSubject : public subject
{
  public:
    portSubject();
    ~portSubject() override;

    std::string whyNot(testVector const& vector) const override;
    void begin(portSettings const& settings) override;
    void end() override;
    void put(bytes const& content) override;
    void send(sendMessage const& message, std::string const& request) override;
    void reject(sendReject const& rejected, std::string const& request) override;
    void filler(std::string const& request) override;
    bytes imageOf(messageFields const& fields) const override;
    bool showsApplication() const override { return true; }
    std::string portNumber() const override;
    duration characterTime() const override;

  private:
    class runningPort;

    std::unique_ptr<runningPort> running;
};

} // namespace conformance

#endif
