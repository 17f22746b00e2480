package com.kelvane.media.tool.shell;

import java.io.FileNotFoundException;
import java.io.IOException;
import java.nio.file.AccessDeniedException;
import java.nio.file.FileAlreadyExistsException;
import java.nio.file.FileSystemException;
import java.nio.file.NoSuchFileException;

/** Ends a command with exit code 1; the message says in one line what is wrong and what to do. */
public final class Failure extends RuntimeException {
    private static final long serialVersionUID = 1;

    public Failure(String message, Object... values) {
        super(Text.format(message, values));
    }

    /** What went wrong with a file, which most of Java's own messages leave to the exception's class. */
    public static String reason(IOException problem) {
        if (!(problem instanceof FileSystemException) || problem instanceof FileNotFoundException) {
            String message = problem.getMessage() == null ? problem.toString() : problem.getMessage();
            return problem.getCause() instanceof IOException ? message + " " + reason((IOException) problem.getCause())
                    : message;
        }
        FileSystemException at = (FileSystemException) problem;
        String reason = at.getReason() != null ? at.getReason()
                : problem instanceof AccessDeniedException ? "permission denied"
                : problem instanceof NoSuchFileException ? "no such file or directory"
                : problem instanceof FileAlreadyExistsException ? "a file of this name is in the way"
                : problem.getClass().getSimpleName();
        return at.getFile() + ": " + reason;
    }
}
