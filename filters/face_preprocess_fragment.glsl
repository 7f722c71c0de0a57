// Prepares a picture for a face detector network: the channel means are
// subtracted, and the part above bgY is filled with a constant colour.
// With isScale the picture is copied as it is.
varying vec2 textureCoordinate;
uniform sampler2D inputImageTexture;
uniform vec2 pixel_size;
uniform bool isScale;
uniform float bgY;

void main()
{
    vec4 color = texture2D(inputImageTexture, textureCoordinate);
    if (isScale) {
        gl_FragColor = color;
        return;
    }
    if (textureCoordinate.y > bgY) {
        gl_FragColor = vec4(117.0 / 255.0, 123.0 / 255.0, 104.0 / 255.0, 1.0);
        return;
    }
    gl_FragColor = vec4(color.rgb - vec3(123.0, 104.0, 117.0) / 255.0, 1.0);
}
