// ZV_Streamable: what every share record offers, reading itself from and
// writing itself to a byte stream.
#pragma once

class QB_ByteStream;

class ZV_Streamable
{
public:
    virtual void Load(QB_ByteStream& stream) = 0;
    virtual void Save(QB_ByteStream& stream) const = 0;

protected:
    // Records live by value in members, lists and arrays and are destroyed by
    // their owners, never through this base; so no virtual destructor, and
    // deleting through the base is kept from compiling instead.
    ZV_Streamable() = default;
    ZV_Streamable(const ZV_Streamable&) = default;
    ZV_Streamable& operator=(const ZV_Streamable&) = default;
    ~ZV_Streamable() = default;
};
