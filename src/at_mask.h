// Keeps PINs, PUKs and passwords out of the log.
#pragma once

// A text to log: `text` itself when it carries no secret, otherwise a copy in which every character of the secrets is a "*". Secrets are the
// codes of AT+CPIN=, AT+CLCK=, AT+CPWD= (3GPP TS 27.007 8.3, 7.4, 7.5) and the password of AT+CGAUTH= (10.1.31), wherever the command
// stands in the text. Any thread.
struct Masked {
    explicit Masked(const char *text);
    ~Masked();
    Masked(const Masked &) = delete;
    Masked &operator=(const Masked &) = delete;

    const char *text; // "(masked)" when there is no memory for the copy

private:
    char *copy;
};
