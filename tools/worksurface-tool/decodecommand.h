#pragma once

class ToolContext;

// worksurface-tool decode [FILE]: a captured byte stream from a section (FILE, or standard
// input), split into frames and noise by the link's own parser and printed as monitor
// prints live traffic, each line with the byte offset of its first byte. Opens no port.
class DecodeCommand
{
public:
    explicit DecodeCommand(ToolContext& context);

    int run();

private:
    ToolContext& m_context;
};
