// QB_ByteStreamBase: the byte stream's table of virtual operations and
// nothing else, in the order of its slots.
//
// QB_UserID moves its two words through this table alone. That keeps the
// user identifier, which a host of the module builds too, free of the rest
// of the base library: a host compiles it from the public header and links
// nothing but the module. QB_ByteStream is the one implementation.
#pragma once

#include <cstdint>

class QB_ByteStreamBase
{
public:
    virtual ~QB_ByteStreamBase() = default;
    virtual void Init(void* pBuf, int32_t lLen, bool bLoad) = 0;
    virtual uint8_t* GetBuffer() = 0;
    // Raises the failure of the stream's direction unless [nPos, nPos + nSize)
    // lies inside the view. A negative size never fits.
    virtual void Check(int32_t nPos, int32_t nSize) const = 0;
    // The one road for every byte and every seek: moves by nOffset, then
    // copies nSize bytes in the stream's direction (none when pData is null).
    // A failure raises before anything moves.
    virtual void Transfer(int32_t nOffset, int32_t nSize, void* pData) = 0;

protected:
    QB_ByteStreamBase() = default;
    QB_ByteStreamBase(const QB_ByteStreamBase&) = default;
    QB_ByteStreamBase& operator=(const QB_ByteStreamBase&) = default;
};
