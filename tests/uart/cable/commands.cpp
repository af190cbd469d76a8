#include "commands.h"

#include <array>
#include <cerrno>
#include <sstream>
#include <unistd.h>

namespace cable
{

bool commands::step()
{
    std::array<char, 256> part{};
    ssize_t const count = ::read(socket, part.data(), part.size());
    if (count <= 0)
    {
        return count < 0 && errno == EAGAIN;
    }
    unfinished.append(part.data(), static_cast<std::size_t>(count));
    for (std::size_t end = unfinished.find('\n'); end != std::string::npos; end = unfinished.find('\n'))
    {
        std::string const reply = answer(unfinished.substr(0, end)) + '\n';
        unfinished.erase(0, end + 1);
        if (::write(socket, reply.data(), reply.size()) != static_cast<ssize_t>(reply.size()))
        {
            return false;
        }
    }
    return true;
}

std::string commands::answer(std::string const& line)
{
    std::istringstream words(line);
    std::string verb;
    unsigned port = 0;
    words >> verb >> port;
    if (!words || port >= wires.size())
    {
        return "?";
    }
    std::vector<double> values;
    for (double value = 0.0; words >> value;)
    {
        values.push_back(value);
    }
    values.resize(2);
    return apply(verb, port, values);
}

std::string commands::apply(std::string const& verb, unsigned port, std::vector<double> const& values)
{
    wire& line = wires[port];
    if (verb == "count")
    {
        return std::to_string(line.charactersCarried()) + ' ' + std::to_string(line.charactersSpoilt());
    }
    if (verb == "speed" && values[0] > 0.0)
    {
        line.setCharacterTime_ns(static_cast<std::int64_t>(1e9 * values[1] / values[0]));
    }
    else if (verb == "hold")
    {
        line.hold(values[0] != 0.0);
    }
    else if (verb == "lose")
    {
        line.lose(values[0]);
    }
    else if (verb == "flip")
    {
        line.flip(values[0]);
    }
    else if (verb == "mend")
    {
        line.mend();
    }
    else if (verb == "break")
    {
        target.sendBreak(port);
    }
    else
    {
        return "?";
    }
    return "ok";
}

} // namespace cable
