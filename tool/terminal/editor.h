// A text in the user's editor.
#pragma once

#include <optional>
#include <string>

namespace mira::tool {

/// A text in a file of its own that nobody else may read, in the folder for temporary files. The
/// file goes with the object, unless it is to be kept.
class EditedFile {
public:
    /// Lines are parted there as editors expect it. Throws a Refusal.
    explicit EditedFile(const std::string& text);
    ~EditedFile();
    EditedFile(const EditedFile&) = delete;

    /// Runs the command of $EDITOR, else of $VISUAL, else vi, and waits for its end. What it has
    /// made of the text, its line ends as they were; nothing when that is the text. A line end that
    /// an editor puts behind the last line is not the text's. Throws a Refusal, which names the
    /// file, when the editor fails.
    std::optional<std::string> edit();
    /// Leaves the file; its path.
    const std::string& keep();

private:
    std::string text_, shown_;
    std::string folder_, path_;
    bool kept_ = false;
};

}  // namespace mira::tool
