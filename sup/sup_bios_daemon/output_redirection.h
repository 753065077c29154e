// Standard output and standard error of this process, sent into a file for a while.
#pragma once

class output_redirection
{
public:
    // Redirects both into a file that is created or emptied; a planted link is not followed. When the file cannot
    // be opened both stay where they are, but restore then connects them to descriptor 0 and closes that one.
    // When anything else fails both stay where they are.
    explicit output_redirection(const char *path);
    output_redirection(const output_redirection &) = delete;
    output_redirection &operator=(const output_redirection &) = delete;

    // Ends the redirection. Not done by the end of the object's life.
    void restore();

    // Leaves both streams in the file for good and gives up what restore would need.
    void keep();

private:
    void redirect_to(int log);
    void close_saved();

    int saved_output_ = -1; // -1: nothing to restore
    int saved_error_ = -1;
};
