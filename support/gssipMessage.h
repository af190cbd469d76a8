#ifndef GSSIPMESSAGE_H
#define GSSIPMESSAGE_H

#include "gssipExport.h"

#include <cstdint>
#include <vector>

/// One GSSIP message: five header words, N data words, the data checksum, and the times of sending and receiving.
///
/// On the line a message is a run of 16-bit words, least significant byte first: start of message 0x81FF, id, data
/// word count N, flags, header checksum, and only when N > 0 the N data words and the data checksum. The five header
/// words sum to 0 modulo 65536, and so do the data words with their checksum.
///
/// A message is a plain value: copies are deep and independent. It does nothing by itself to keep header, data and
/// checksums consistent; the setters store what they are given, `setHeaderChecksum()` and `setDataChecksum()` compute.
/// No operation blocks. Different threads may use different messages; one message has one user at a time.
/// Memory exhaustion is reported by `std::bad_alloc`, from which the message is as before.
class GSSIP_EXPORT gssipMessage
{
  public:
    static constexpr std::uint16_t SOM = 0x81FF; ///< the start-of-message word

    static constexpr std::uint16_t REPLY_FLAG = 0x8000;        ///< a reply that the port itself has built
    static constexpr std::uint16_t ACK_REQ_FLAG = 0x4000;      ///< the sender asks for acknowledgement
    static constexpr std::uint16_t HANDSHAKE_FLAG = 0x1000;    ///< a handshake message
    static constexpr std::uint16_t ACK_FLAG = 0x0800;          ///< an acknowledgement
    static constexpr std::uint16_t NAK_FLAG = 0x0400;          ///< a negative acknowledgement
    static constexpr std::uint16_t REJECT_FLAG = 0x0200;       ///< a handshake reject
    static constexpr std::uint16_t REJECT_EXTRA_FLAG = 0x0100; ///< the reject's optional extra bit

    /// An empty header-only message: start of message 0x81FF, every other word 0, no data, both time stamps 0.0.
    gssipMessage() noexcept;

    /// A message with `count` data words, all zero, and right checksums; 0 gives a header-only message.
    gssipMessage(std::uint16_t const& id, std::uint16_t const& flags, std::uint16_t const& count);

    gssipMessage(gssipMessage const&) = default;        ///< a deep copy, time stamps included
    gssipMessage& operator=(gssipMessage const& other); ///< a deep copy, time stamps included
    /// Moving neither allocates nor throws; the source is then as after `clear()`, but for its data checksum and times.
    gssipMessage(gssipMessage&&) noexcept = default;
    /// As move construction.
    gssipMessage& operator=(gssipMessage&&) noexcept = default;

    virtual ~gssipMessage();

    /// True when the message is fit to accept: the start-of-message word is 0x81FF, the header checksum is right, the
    /// number of data words held is the count in the header, and the data checksum is right when there are data.
    virtual bool isValid() const;

    /// Back to the state of a default-constructed message. Keeps the memory for later use.
    void clear() noexcept;

    void setSOM(std::uint16_t const& word); ///< stores a start-of-message word, right or not
    void setId(std::uint16_t const& id);    ///< stores the id
    /// Stores the data word count in the header. With `resize` the data words are brought to that number too (new
    /// ones are zero), without it they stay as they are.
    void setDataWordSize(std::uint16_t const& count, bool resize);
    void setProtocolFlags(std::uint16_t const& flags); ///< stores the whole flags word
    /// Stores a header checksum, right or not.
    void setHeaderChecksum(std::uint16_t const& checksum);
    /// Computes and stores the header checksum of the message as it stands.
    void setHeaderChecksum();
    /// Stores a data checksum, right or not.
    void setDataChecksum(std::uint16_t const& checksum);
    /// Computes and stores the data checksum of the data words that are sent; 0 when there are none.
    void setDataChecksum();

    std::uint16_t getSOM() const;            ///< the start-of-message word as stored
    std::uint16_t getId() const;             ///< the id
    std::uint16_t getDataWordSize() const;   ///< the count in the header
    std::uint16_t getProtocolFlags() const;  ///< the whole flags word
    std::uint16_t getHeaderChecksum() const; ///< as last computed or stored
    std::uint16_t getDataChecksum() const;   ///< as last computed or stored

    /// The data words, to be changed at will; the count in the header is the caller's to keep in step.
    std::vector<std::uint16_t>& getData();
    std::vector<std::uint16_t> const& getData() const; ///< the data words held
    /// Sets the data words and the count in the header together. False, and nothing changes, for more than 65535.
    bool setData(std::vector<std::uint16_t> const& words);

    bool isHeaderMessage() const;    ///< true when the count in the header is 0
    bool isAckReqFlagSet() const;    ///< true when ACK_REQ_FLAG is set, whatever else is
    bool isAckMsgFlagSet() const;    ///< true when ACK_FLAG is set, whatever else is
    bool isNakMsgFlagSet() const;    ///< true when NAK_FLAG is set, whatever else is
    bool isHandshakeFlagSet() const; ///< true when HANDSHAKE_FLAG is set, whatever else is

    /// The message as it stands on the line, checksums as stored. It follows the count N in the header: data words
    /// beyond N are left out and missing ones are zero, so that the result is always one whole frame.
    std::vector<std::uint8_t> getHeaderAndDataUint8() const;
    /// The same into a vector that is there already; allocates only when that is too small.
    void getHeaderAndDataUint8(std::vector<std::uint8_t>& image) const;
    /// The length of that image in bytes: 10 when N is 0, (N + 6) × 2 otherwise.
    unsigned getSizeBytes() const;

    void setSendTimeStamp(double const& time_sec);    ///< seconds of the port's time-stamp source
    double getSendTimeStamp() const;                  ///< as last set; 0.0 at first
    void setReceiveTimeStamp(double const& time_sec); ///< seconds of the port's time-stamp source
    double getReceiveTimeStamp() const;               ///< as last set; 0.0 at first

  private:
    enum headerWord : std::size_t { SOM_WORD, ID_WORD, COUNT_WORD, FLAGS_WORD, CHECKSUM_WORD, HEADER_WORDS };

    void makeHeader();
    std::uint16_t headerAt(headerWord place) const;
    void setHeaderAt(headerWord place, std::uint16_t value);
    std::uint16_t computeHeaderChecksum() const;
    std::uint16_t computeDataChecksum() const;
    std::size_t dataWordsSent() const;

    std::vector<std::uint16_t> header; ///< the five header words, or none, which stands for those of an empty message
    std::vector<std::uint16_t> data;
    std::uint16_t dataChecksum = 0;
    double sendTimeStamp_sec = 0.0;
    double receiveTimeStamp_sec = 0.0;
};

#endif
