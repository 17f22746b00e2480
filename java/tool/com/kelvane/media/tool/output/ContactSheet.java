package com.kelvane.media.tool.output;

import com.kelvane.media.tool.shell.Text;
import java.awt.Color;
import java.awt.Font;
import java.awt.Graphics2D;
import java.awt.RenderingHints;
import java.awt.geom.AffineTransform;
import java.awt.image.BufferedImage;
import java.io.IOException;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.List;
import javax.imageio.ImageIO;

/** Draws pictures in labelled rows, a column for each moment. */
public final class ContactSheet {
    /** A row's label: what it shows, in large letters, and figures about it, each on a line of its own. */
    public record Label(String name, List<String> figures) {
    }

    private static final int MARGIN = 28;
    private static final int GAP = 10;
    private static final int LABEL_WIDTH = 190;
    private static final int HEADER_HEIGHT = 62;
    private static final int LINE_HEIGHT = 21;
    private static final Color BACKGROUND = new Color(0x15181d);
    private static final Color BRIGHT = new Color(0xeceff4);
    private static final Color QUIET = new Color(0x98a2b3);
    private static final Font TITLE = new Font(Font.SANS_SERIF, Font.BOLD, 17);
    private static final Font NAME = new Font(Font.SANS_SERIF, Font.BOLD, 18);
    private static final Font SMALL = new Font(Font.SANS_SERIF, Font.PLAIN, 14);

    // A headless runtime may come without the libraries and fonts that drawing text takes.
    private static volatile String textProblem;

    private ContactSheet() {
    }

    /**
     * @param grid all pictures, without any space between them
     * @param rowHeights in pixels, as many as labels
     * @param rotation degrees by which each picture is turned, clockwise
     * @param moments times of the columns in milliseconds
     */
    public static void draw(String title, BufferedImage grid, int[] rowHeights, int rotation, List<Label> labels,
                            List<Long> moments, Path file) throws IOException {
        boolean turned = rotation % 180 != 0;
        int storedWidth = grid.getWidth() / moments.size();
        int cellWidth = turned ? Arrays.stream(rowHeights).max().orElse(0) : storedWidth;
        int width = MARGIN + LABEL_WIDTH + moments.size() * (cellWidth + GAP) - GAP + MARGIN;
        int height = MARGIN + HEADER_HEIGHT + (turned ? rowHeights.length * storedWidth : grid.getHeight())
                + (rowHeights.length - 1) * GAP + MARGIN;
        BufferedImage sheet = new BufferedImage(width, height, BufferedImage.TYPE_INT_RGB);
        Graphics2D canvas = sheet.createGraphics();
        canvas.setRenderingHint(RenderingHints.KEY_TEXT_ANTIALIASING, RenderingHints.VALUE_TEXT_ANTIALIAS_ON);
        canvas.setColor(BACKGROUND);
        canvas.fillRect(0, 0, width, height);
        text(canvas, title, TITLE, BRIGHT, MARGIN, MARGIN + 16);
        for (int column = 0; column < moments.size(); column++) {
            long time = moments.get(column);
            String heading = Text.format("%d:%02d.%03d", time / 60_000, time / 1000 % 60, time % 1000);
            text(canvas, heading, SMALL, QUIET, cellLeft(column, cellWidth), MARGIN + HEADER_HEIGHT - 10);
        }
        int top = MARGIN + HEADER_HEIGHT;
        int gridTop = 0;
        for (int row = 0; row < rowHeights.length; row++) {
            Label label = labels.get(row);
            text(canvas, label.name, NAME, BRIGHT, MARGIN, top + 18);
            for (int line = 0; line < label.figures.size(); line++) {
                text(canvas, label.figures.get(line), SMALL, QUIET, MARGIN, top + 44 + line * LINE_HEIGHT);
            }
            for (int column = 0; column < moments.size(); column++) {
                drawTurned(canvas, grid.getSubimage(column * storedWidth, gridTop, storedWidth, rowHeights[row]), rotation,
                        cellLeft(column, cellWidth), top);
            }
            top += (turned ? storedWidth : rowHeights[row]) + GAP;
            gridTop += rowHeights[row];
        }
        canvas.dispose();
        ImageIO.write(sheet, "png", file.toFile());
        if (textProblem != null) {
            Summary.line("%s has no words: this Java cannot draw text (%s); it takes libharfbuzz, libfreetype, fontconfig and"
                    + " a font", file.getFileName(), textProblem);
        }
    }

    private static void drawTurned(Graphics2D canvas, BufferedImage picture, int rotation, int left, int top) {
        boolean turned = rotation % 180 != 0;
        int width = turned ? picture.getHeight() : picture.getWidth();
        int height = turned ? picture.getWidth() : picture.getHeight();
        AffineTransform turn = AffineTransform.getTranslateInstance(left + width / 2.0, top + height / 2.0);
        turn.rotate(Math.toRadians(rotation));
        turn.translate(-picture.getWidth() / 2.0, -picture.getHeight() / 2.0);
        canvas.drawImage(picture, turn, null);
    }

    private static int cellLeft(int column, int cellWidth) {
        return MARGIN + LABEL_WIDTH + column * (cellWidth + GAP);
    }

    private static void text(Graphics2D canvas, String text, Font font, Color color, int left, int baseline) {
        if (textProblem != null) {
            return;
        }
        canvas.setFont(font);
        canvas.setColor(color);
        try {
            canvas.drawString(text, left, baseline);
        } catch (LinkageError | InternalError | RuntimeException incomplete) {
            Throwable cause = incomplete;
            while (cause.getCause() != null) {
                cause = cause.getCause();
            }
            textProblem = String.valueOf(cause.getMessage());
        }
    }
}
